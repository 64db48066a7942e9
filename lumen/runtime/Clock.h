#pragma once

#include <chrono>

namespace lm {

/// The time that timers, limits and the uptime run on. Tests bring their own, which they move.
class Clock {
 public:
  /// Counts from the start of the system, suspended time included.
  using Time = std::chrono::time_point<Clock, std::chrono::milliseconds>;

  virtual ~Clock() = default;
  /// Never goes back.
  [[nodiscard]] virtual Time now() const = 0;
};

/// CLOCK_BOOTTIME.
class SystemClock : public Clock {
 public:
  [[nodiscard]] Time now() const override;
};

}  // namespace lm
