#pragma once

#include <algorithm>
#include <cstdint>

#include "lumen/runtime/Clock.h"

namespace lm::test {

/// A clock that stands still unless a test moves it.
class ManualClock : public Clock {
 public:
  [[nodiscard]] uint64_t now() const override { return now_; }

  /// To a time that has passed already it does not move.
  void moveTo(uint64_t time) {
    if (time > now_) now_ = time;
  }
  void advance(uint64_t milliseconds) { now_ += milliseconds; }
  /// In steps of a tenth of a second, as a busy loop sees it; `turn` is called after each.
  template <typename Turn>
  void advanceInSteps(uint64_t milliseconds, Turn turn) {
    for (const uint64_t end = now_ + milliseconds; now_ < end; turn()) {
      advance(std::min<uint64_t>(100, end - now_));
    }
  }

 private:
  uint64_t now_ = 1'000'000;  // a router that has been up for a while
};

}  // namespace lm::test
