#pragma once

#include <gtest/gtest.h>

#include <string_view>

#include "lumen/values/Ipv4.h"

namespace lumen::test {

/// "45.45.45.1"; any other text fails the test.
inline Ipv4Address ip(std::string_view text) {
  const auto address = Ipv4Address::parse(text);
  EXPECT_TRUE(address) << text;
  return address.value_or(Ipv4Address());
}

}  // namespace lumen::test
