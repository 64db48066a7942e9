#pragma once

#include <cstdint>
#include <memory>

#include "platform/Handler.h"

namespace lm {

/// What a Looper runs on: clock, descriptors and the connection to the other programs.
class Runtime;

/// The service number under which this program registers its handlers. Every program defines it
/// next to `main`.
extern const uint32_t serviceNumber;

/// A program's event loop and its connection to the rest of the router. It dispatches, one at a
/// time, requests, notifications, timers and ready descriptors. A process has at most one.
class Looper : public Handler {
 public:
  /// Connects to the platform, waiting up to five seconds for it to start. On failure logs the
  /// reason and ends the process with exit status 1.
  Looper();
  /// With another runtime, made by a test.
  explicit Looper(std::unique_ptr<Runtime> runtime);
  ~Looper() override;

  /// Registers `handler` under this program's service number. Requests that arrive before `run` are
  /// queued for it. `handler` is not owned and must be destroyed before the Looper.
  void addHandler(uint32_t id, Handler& handler);

  /// Dispatches until SIGTERM, SIGINT, the end of the leave delay or the loss of the platform's
  /// connection. Exchanges still work afterwards, as long as the platform does.
  void run();

  /// Leaves the loop after `delay` milliseconds unless called again before then. 0: stays.
  void setupLeave(uint32_t delay);

  /// For the platform's own code.
  [[nodiscard]] Runtime& runtime() { return *runtime_; }

 private:
  std::unique_ptr<Runtime> runtime_;  // never null
};

/// The process's looper. It must exist.
[[nodiscard]] Looper& getLooper();

}  // namespace lm
