#pragma once

#include <ostream>
#include <string>

#include "platform/message.h"

namespace lm {

/// Whether both have the same fields in the same order.
[[nodiscard]] bool operator==(const message& a, const message& b);

/// For GoogleTest.
void PrintTo(const message& m, std::ostream* out);

}  // namespace lm

namespace lm::test {

/// A message in one line: `{bool 0xfe000a=1, u32 0x5=7, string 0x27="dstnat", u32[] 0x2=[20 0]}`;
/// field numbers without their type bits.
[[nodiscard]] std::string describe(const message& m);

}  // namespace lm::test
