#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>

#include "lumen/runtime/Clock.h"

namespace lumen {

/// What an lm::Timer counts in.
using TimerTicks = std::chrono::duration<uint32_t, std::centi>;

/// The delay of an lm::Timer that fires when `wait`, which is not negative, is over, and not
/// before.
[[nodiscard]] constexpr uint32_t timerDelay(std::chrono::milliseconds wait) {
  return std::chrono::ceil<TimerTicks>(wait).count();
}

/// The time on `clock`: since the system started.
[[nodiscard]] inline std::chrono::milliseconds timeOn(const lm::Clock& clock) {
  return std::chrono::milliseconds(clock.now());
}

}  // namespace lumen
