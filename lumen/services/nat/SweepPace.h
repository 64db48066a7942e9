#pragma once

#include "lumen/runtime/Clock.h"
#include "platform/Timer.h"

namespace lumen {

/// Decides when the kernel's flows are swept. A sweep walks the whole table, so requests in quick
/// succession share one; sweeps take at most a tenth of the time. Needs the event loop.
class SweepPace {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    /// The time for a sweep has come. over() must follow.
    virtual void sweep() = 0;
  };

  /// Both must outlive this.
  SweepPace(Owner& owner, const lm::Clock& clock) : owner_(owner), clock_(clock) {}
  SweepPace(const SweepPace&) = delete;
  SweepPace& operator=(const SweepPace&) = delete;

  /// Asks for a sweep that begins after this call.
  void request();
  /// The sweep that was under way is over.
  void over();

  /// Whether no sweep is under way or scheduled.
  [[nodiscard]] bool idle() const { return !sweeping_ && !wanted_; }

 private:
  void schedule();
  void begin();

  Owner& owner_;
  const lm::Clock& clock_;
  bool wanted_ = false;
  bool sweeping_ = false;
  lm::Clock::Time began_;  // of the sweep that is under way or was the last
  lm::Clock::Time rest_;   // no sweep before this time
  lm::Timer timer_;
};

}  // namespace lumen
