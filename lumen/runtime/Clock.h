#pragma once

#include <cstdint>

namespace lm {

/// The time that timers, limits and the uptime run on. Tests bring their own, which they move.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Milliseconds since the system started, times of suspension included. Never falls.
  [[nodiscard]] virtual uint64_t now() const = 0;
};

/// CLOCK_BOOTTIME.
class SystemClock : public Clock {
 public:
  [[nodiscard]] uint64_t now() const override;
};

}  // namespace lm
