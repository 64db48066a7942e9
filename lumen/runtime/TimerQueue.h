#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "lumen/runtime/Clock.h"
#include "platform/ThinRunner.h"

namespace lm {

/// Pending timers in the order in which they come due; those due at the same time in the order in
/// which they were added. Adding and removing take logarithmic time.
class TimerQueue {
 public:
  /// A timer's owner and callback, which name it.
  using Timer = std::pair<void*, ThinRunner::TimerCallback>;

  /// A pending timer is replaced.
  void add(Timer timer, Clock::Time due);
  /// Does nothing when the timer is not pending.
  void remove(Timer timer);

  /// When the next timer comes due.
  [[nodiscard]] std::optional<Clock::Time> nextDue() const;

  /// The number of timers ever added, to recognise those that are added later.
  [[nodiscard]] uint64_t added() const { return added_; }
  /// Takes the first timer that is due at `now`, unless it was added after `added` was read.
  [[nodiscard]] std::optional<Timer> takeDue(Clock::Time now, uint64_t added);

 private:
  using Place = std::pair<Clock::Time, uint64_t>;  // when due, which one added

  std::map<Place, Timer> byPlace_;
  std::map<Timer, Place> byTimer_;
  uint64_t added_ = 0;
};

}  // namespace lm
