#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>

namespace lumen {

/// What an lm::Timer counts in.
using Centiseconds = std::chrono::duration<uint32_t, std::centi>;

/// The delay of an lm::Timer that fires once `wait`, which is not negative, has passed, and not
/// before.
[[nodiscard]] constexpr uint32_t timerDelay(std::chrono::milliseconds wait) {
  return std::chrono::ceil<Centiseconds>(wait).count();
}

}  // namespace lumen
