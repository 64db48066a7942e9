#pragma once

#include <algorithm>
#include <chrono>

#include "lumen/runtime/Clock.h"

namespace lm::test {

/// A clock that stands still unless a test moves it.
class ManualClock : public Clock {
 public:
  [[nodiscard]] Time now() const override { return now_; }

  /// To a time that has passed already it does not move.
  void moveTo(Time time) { now_ = std::max(now_, time); }
  void advance(std::chrono::milliseconds time) { now_ += time; }
  /// In steps of a tenth of a second, as a busy loop sees it; `turn` is called after each.
  template <typename Turn>
  void advanceInSteps(std::chrono::milliseconds time, Turn turn) {
    constexpr std::chrono::milliseconds step(100);
    for (const Time end = now_ + time; now_ < end; turn()) advance(std::min(step, end - now_));
  }

 private:
  Time now_{std::chrono::seconds(1000)};  // a router that has been up for a while
};

}  // namespace lm::test
