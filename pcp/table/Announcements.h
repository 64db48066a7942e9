#pragma once

#include <chrono>
#include <optional>

#include "lumen/runtime/Clock.h"

namespace pcp {

/// When to announce the external address and the epoch: ten times, at once and then after 250 ms,
/// 500 ms and so on, each pause twice as long as the one before (RFC 6886 section 3.2.1).
class Announcements {
 public:
  /// `clock` must outlive this.
  explicit Announcements(const lm::Clock& clock) : clock_(clock) {}

  /// Begins from the first, which is due now.
  void begin();
  void stop() { left_ = 0; }

  /// How long to wait for the next; none: all are sent.
  [[nodiscard]] std::optional<std::chrono::milliseconds> untilNext() const;
  /// Whether one is due. Each is due once.
  [[nodiscard]] bool take();

 private:
  const lm::Clock& clock_;
  unsigned left_ = 0;
  std::chrono::milliseconds pause_{0};  // between the next one and the one after it
  lm::Clock::Time next_{};
};

}  // namespace pcp
