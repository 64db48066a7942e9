#pragma once

#include <cstdint>
#include <type_traits>

namespace lm {

/// Conditions of a descriptor that a watch can wait for.
inline constexpr unsigned watchRead = 1;
inline constexpr unsigned watchWrite = 4;

/// Timers and descriptor watches of the event loop. Callbacks run on the loop, one at a time; a
/// callback may add and remove any timer or watch, its own included, and destroy its owner.
class ThinRunner {
 public:
  using TimerCallback = void (*)(void* owner);
  using SocketCallback = void (*)(void* owner, int fd, unsigned flags);

  virtual ~ThinRunner() = default;

  /// Calls `callback(owner)` once, after `delay` hundredths of a second. A timer is known by owner
  /// and callback: adding one that is pending sets its delay anew.
  virtual void addTimer(void* owner, TimerCallback callback, uint32_t delay) = 0;
  /// Cancels the timer if it is pending.
  virtual void removeTimer(void* owner, TimerCallback callback) = 0;

  /// Calls `callback(owner, fd, flags)` whenever `fd` meets one of the conditions in `flags`
  /// (watchRead, watchWrite), until removeSocket. A descriptor has one watch: a new one replaces
  /// it. A descriptor of -1 is ignored.
  virtual void addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) = 0;
  /// Ends the watch of `fd`, if there is one. To be called before `fd` is closed.
  virtual void removeSocket(int fd) = 0;
};

/// The process's runner; it lives as long as the Looper, which must exist.
[[nodiscard]] ThinRunner& getRunner();

/// Watches that call a member function, which takes the descriptor, and the flags if it likes.
template <auto Method, typename Owner>
void addSocket(int fd, Owner& owner, unsigned flags) {
  getRunner().addSocket(
      fd, &owner,
      [](void* o, int readyFd, unsigned readyFlags) {
        if constexpr (std::is_invocable_v<decltype(Method), Owner&, int, unsigned>) {
          (static_cast<Owner*>(o)->*Method)(readyFd, readyFlags);
        } else {
          (static_cast<Owner*>(o)->*Method)(readyFd);
        }
      },
      flags);
}

inline void removeSocket(int fd) { getRunner().removeSocket(fd); }

}  // namespace lm
