#pragma once

#include <cstdint>
#include <memory>

#include "platform/Handler.h"

namespace lm {

/// What stands behind a Looper: clock, descriptors and the connection to the other programs.
class Runtime;

/// The service number under which this program registers its handlers. Every program defines it
/// beside `main`.
extern const uint32_t serviceNumber;

/// A program's one event loop and its connection to the rest of the router. It dispatches, one at
/// a time, requests, notifications, timers and descriptors that are ready. There is at most one in
/// a process.
class Looper : public Handler {
 public:
  /// Connects to the platform, which may take up to five seconds while that starts. When it cannot,
  /// logs why and ends the process with exit status 1.
  Looper();
  /// With another runtime, which a test has made.
  explicit Looper(std::unique_ptr<Runtime> runtime);
  ~Looper() override;

  /// Registers `handler` under this program's service number. Requests that arrive before `run`
  /// are kept for it. `handler` is not owned and must be destroyed before the Looper.
  void addHandler(uint32_t id, Handler& handler);

  /// Dispatches until SIGTERM, SIGINT, the end of the leave delay or the end of the platform's
  /// connection. Afterwards exchanges still work as long as the platform does.
  void run();

  /// Leaves the loop in `delay` milliseconds unless called again before. 0: stays.
  void setupLeave(uint32_t delay);

  /// For the platform's own code.
  [[nodiscard]] Runtime& runtime() { return *runtime_; }

 private:
  std::unique_ptr<Runtime> runtime_;  // never null
};

/// The process's looper. It must exist.
[[nodiscard]] Looper& getLooper();

}  // namespace lm
