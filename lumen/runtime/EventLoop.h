#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/Time.h"
#include "lumen/runtime/TimerQueue.h"
#include "platform/ThinRunner.h"

namespace lm {

/// One thread's descriptors and timers. libev waits for descriptors; timers are the loop's own
/// queue on the injected clock. getRunner() returns the loop while it lives; there is at most one.
///
/// In a turn every ready watch is dispatched once, then those that were started meanwhile and have
/// something to read, then every timer that was due when the turn began. A timer that falls due
/// while callbacks run thus waits until the descriptors have been polled again: data that arrived
/// in time comes before the timeout that guards it.
///
/// A listening socket queues only one client, and a full queue costs the next one a whole second:
/// listening sockets are dispatched first. Between any two other callbacks they are polled again
/// and dispatched until no client waits, at most 16 times each, so that clients that connect faster
/// than they are accepted delay the others by a bounded time only. The wait of a turn is its first
/// poll; each further one costs one system call, if there are listening sockets. So does the look
/// at what was started, which polls them as well.
///
/// A descriptor that stays ready without progress must not use up the processor: a watch whose
/// callback returned false twice in a row is paused for 100 ms each time.
class EventLoop : public ThinRunner {
 public:
  /// `clock` must outlive the loop.
  explicit EventLoop(const Clock& clock);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop() override;

  void addTimer(void* owner, TimerCallback callback, uint32_t delay) override {
    timers_.add({owner, callback}, clock_.now() + lumen::Centiseconds(delay));
  }
  void removeTimer(void* owner, TimerCallback callback) override {
    timers_.remove({owner, callback});
  }
  void addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) override;
  void removeSocket(int fd) override;

  /// Waits until something is ready or due, at most `limit` (none: for ever), and dispatches it.
  /// With a limit of 0 it dispatches what is ready now.
  void turn(std::optional<std::chrono::milliseconds> limit);

  /// When there is something to do even if no descriptor becomes ready.
  [[nodiscard]] std::optional<Clock::Time> nextDue() const { return timers_.nextDue(); }

  [[nodiscard]] const Clock& clock() const { return clock_; }

 private:
  struct Libev;
  struct Watch;
  using WatchPtr = std::shared_ptr<Watch>;  // never null
  /// A watch that was ready when it was polled; it may have been removed since.
  struct Ready {
    WatchPtr watch;
    unsigned flags;
  };

  void start(const WatchPtr& watch);
  void stop(Watch& watch);
  static void resume(void* watch);
  void wait(Clock::Time now, std::optional<std::chrono::milliseconds> limit);
  void pollStarted();
  void dispatchReady();
  void dispatch(const Ready& ready);
  void dropClosed();
  void acceptWaiting();
  std::vector<Ready> pollNow(std::vector<WatchPtr> watches);

  const Clock& clock_;
  TimerQueue timers_;  // including those that end a pause
  const std::unique_ptr<Libev> libev_;
  std::map<int, WatchPtr> watches_;
  std::vector<WatchPtr> listeners_;  // those that are not paused
  std::vector<WatchPtr> started_;    // to read from, since the last wait
  std::vector<WatchPtr> unchecked_;  // to be looked at before the next wait: still open?
  std::vector<Ready> ready_;         // found by the last poll of a turn, listeners first
  bool polled_ = false;              // the listeners, since the last callback
};

/// The clock of the process's event loop; the system's while there is none.
[[nodiscard]] const Clock& currentClock();

}  // namespace lm
