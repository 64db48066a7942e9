#pragma once

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

 private:
  uint64_t now_ = 1'000'000;  // a router that has been up for a while
};

}  // namespace lm::test
