#pragma once

#include <cstdint>

#include "platform/ThinRunner.h"

namespace lm {

/// A timer that is cancelled on destruction. Neither copied nor moved: its address identifies it.
class Timer {
 public:
  Timer() = default;
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { stop(); }

  /// Calls the member function of `owner` once, after `delay` hundredths of a second, replacing a
  /// pending call. `owner` must live until the timer has fired or is stopped. The callback may
  /// restart the timer or destroy it.
  template <auto Method, typename Owner>
  void start(Owner& owner, uint32_t delay) {
    stop();
    owner_ = &owner;
    call_ = [](void* o) { (static_cast<Owner*>(o)->*Method)(); };
    pending_ = true;
    getRunner().addTimer(this, &Timer::fire, delay);
  }

  /// Does nothing when no call is pending.
  void stop() {
    if (!pending_) return;
    pending_ = false;
    getRunner().removeTimer(this, &Timer::fire);
  }

  [[nodiscard]] bool pending() const { return pending_; }

 private:
  static void fire(void* timer) {
    auto* self = static_cast<Timer*>(timer);
    self->pending_ = false;
    self->call_(self->owner_);  // may destroy *self
  }

  void* owner_ = nullptr;
  ThinRunner::TimerCallback call_ = nullptr;
  bool pending_ = false;
};

}  // namespace lm
