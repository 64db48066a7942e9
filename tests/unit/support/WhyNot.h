#pragma once

#include <string>

#include "lumen/values/Result.h"

namespace lumen {

/// Why it failed; empty when it did not.
template <typename T>
std::string whyNot(const Result<T>& result) {
  return result ? std::string() : result.why();
}

}  // namespace lumen
