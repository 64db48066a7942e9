#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/Connection.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/runtime/HandlerTable.h"
#include "lumen/runtime/SocketTransport.h"
#include "lumen/runtime/Transport.h"
#include "platform/Fd.h"
#include "platform/Timer.h"

namespace lm {

/// The implementation of a Looper: an event loop on a clock, and a connection to the other
/// programs.
class Runtime {
 public:
  /// `clock` must outlive the runtime. `stopSignals` is a signalfd whose first signal ends `run`.
  Runtime(const Clock& clock, std::unique_ptr<Transport> transport, Fd stopSignals = Fd());
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;
  ~Runtime();

  /// The runtime of a program: the system's clock and the platform's socket at `path`, which it
  /// waits for up to `limit`. Takes over SIGTERM and SIGINT. When it cannot connect it logs why and
  /// exits with 1.
  [[nodiscard]] static std::unique_ptr<Runtime> connect(
      const std::string& path = socketPath,
      std::chrono::milliseconds limit = std::chrono::seconds(5));

  /// See Looper. A registration that fails is fatal.
  void addHandler(uint32_t number, Handler& handler);
  void run();
  void setupLeave(std::chrono::milliseconds delay);

  /// One turn of the loop: waits at most `limit` (none: for ever) for something to do, dispatches
  /// descriptors and timers, then at most one message.
  void turn(std::optional<std::chrono::milliseconds> limit);
  /// Whether `turn` has more messages to dispatch at once.
  [[nodiscard]] bool busy() const { return connection_.arrived() > 0; }
  /// Whether `run` has ended or is to end.
  [[nodiscard]] bool stopped() const { return stopped_; }

  [[nodiscard]] EventLoop& loop() { return loop_; }
  [[nodiscard]] Connection& connection() { return connection_; }
  [[nodiscard]] HandlerTable& handlers() { return handlers_; }

 private:
  void registerService();
  void watchConnection();
  void connectionReady(int fd);
  void stopSignalled(int fd);
  void leaveDelayPassed() { leaveDue_ = true; }
  void leave();

  Fd stopSignals_;
  EventLoop loop_;
  Connection connection_;
  HandlerTable handlers_;
  Timer leaveTimer_;
  unsigned watched_ = 0;     // conditions of the connection's descriptor; 0: none
  bool registered_ = false;  // requests to this program's service come here
  bool leaveDue_ = false;
  bool stopped_ = false;
};

/// The process's runtime, or null when it has no Looper.
[[nodiscard]] Runtime* currentRuntime();

}  // namespace lm
