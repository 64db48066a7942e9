#pragma once

#include <cstdint>
#include <type_traits>

namespace lm {

/// Conditions that a watch can wait for.
inline constexpr unsigned watchRead = 1;
inline constexpr unsigned watchWrite = 4;
/// The condition for listening sockets: a client waits to be accepted. These watches are called
/// before all others, and again as long as clients wait; their callbacks receive watchRead.
inline constexpr unsigned watchAccept = 0x100 | watchRead;

/// The timers and descriptor watches of the event loop. Callbacks run on the loop, one at a time. A
/// callback may add and remove any timer or watch, including its own, and may destroy its owner.
class ThinRunner {
 public:
  using TimerCallback = void (*)(void* owner);
  /// Returns false when the descriptor stays ready although nothing could be read or accepted: its
  /// peer has closed, or a client could not be accepted.
  using SocketCallback = bool (*)(void* owner, int fd, unsigned flags);

  virtual ~ThinRunner() = default;

  /// Calls `callback(owner)` once, after `delay` hundredths of a second. Owner and callback
  /// identify a timer: adding a pending one again restarts its delay.
  virtual void addTimer(void* owner, TimerCallback callback, uint32_t delay) = 0;
  /// Cancels the timer if it is pending.
  virtual void removeTimer(void* owner, TimerCallback callback) = 0;

  /// Calls `callback(owner, fd, flags)` whenever `fd` meets one of the conditions in `flags`
  /// (watchRead, watchWrite, watchAccept), until removeSocket. After the callback has returned
  /// false twice in a row, it is called at most ten times a second. A descriptor has one watch: a
  /// new one replaces it. A descriptor of -1 is ignored.
  virtual void addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) = 0;
  /// Ends the watch of `fd`, if there is one. Must be called before `fd` is closed.
  virtual void removeSocket(int fd) = 0;
};

/// The process's runner. It lives as long as the Looper, which must exist.
[[nodiscard]] ThinRunner& getRunner();

/// Watches `fd` with a member function that takes the descriptor and, optionally, the flags. It
/// returns what a SocketCallback returns, or void, which counts as true.
template <auto Method, typename Owner>
void addSocket(int fd, Owner& owner, unsigned flags) {
  getRunner().addSocket(
      fd, &owner,
      [](void* o, int readyFd, unsigned readyFlags) {
        const auto call = [=] {
          if constexpr (std::is_invocable_v<decltype(Method), Owner&, int, unsigned>) {
            return (static_cast<Owner*>(o)->*Method)(readyFd, readyFlags);
          } else {
            return (static_cast<Owner*>(o)->*Method)(readyFd);
          }
        };
        if constexpr (std::is_void_v<decltype(call())>) {
          call();
          return true;
        } else {
          return call();
        }
      },
      flags);
}

inline void removeSocket(int fd) { getRunner().removeSocket(fd); }

}  // namespace lm
