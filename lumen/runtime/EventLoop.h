#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "lumen/runtime/Clock.h"
#include "platform/ThinRunner.h"

namespace lm {

/// One thread's descriptors and timers. Descriptors are waited for by libev; timers are a queue of
/// its own on the injected clock. While it lives it is what getRunner() gives; there is at most
/// one.
///
/// In a turn every ready watch is dispatched once, then every timer that was due when the turn
/// began. A timer that falls due while callbacks run thus waits until the descriptors were looked
/// at once more: what has arrived in time comes before the limit that waits for it.
///
/// A listening socket holds one waiting client only, and a full queue costs the next one a whole
/// second: listening sockets are dispatched first, and looked at again between any two other
/// callbacks.
///
/// Nothing that stays ready without progress may eat the processor: a watch that its owner kept
/// although the peer has closed, and a listening socket that stays readable although its callback
/// accepted nothing, are dispatched at once the first time, then at most ten times a second.
class EventLoop : public ThinRunner {
 public:
  /// `clock` must outlive the loop.
  explicit EventLoop(const Clock& clock);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop() override;

  void addTimer(void* owner, TimerCallback callback, uint32_t delay) override;
  void removeTimer(void* owner, TimerCallback callback) override;
  void addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) override;
  void removeSocket(int fd) override;

  /// Waits until something is ready or due, at most `limit` milliseconds (none: for ever), and
  /// dispatches it. With a limit of 0 it dispatches what is ready now.
  void turn(std::optional<uint64_t> limit);

  /// When there is something to do even if no descriptor becomes ready: a time of the clock.
  [[nodiscard]] std::optional<uint64_t> nextDue() const;

  [[nodiscard]] const Clock& clock() const;

 private:
  class State;
  std::unique_ptr<State> state_;  // never null
};

/// The clock of the process's event loop; the system's while there is none.
[[nodiscard]] const Clock& currentClock();

}  // namespace lm
