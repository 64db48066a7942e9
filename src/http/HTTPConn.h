#pragma once

#include <memory>
#include <string>

#include "http/RequestScanner.h"
#include "http/ServedInterface.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

class HTTPServer;

/// One accepted connection, from accept to the reply. Its end closes the socket.
class HTTPConn {
 public:
  /// The time for a whole request, from accept on, in hundredths of a second.
  static constexpr uint32_t timeLimit = 1000;

  /// Watches `socket` for `owner`, which owns this connection and outlives it, and starts the time
  /// limit.
  HTTPConn(lm::Fd socket, std::shared_ptr<ServedInterface> servedInterface, HTTPServer& owner);
  HTTPConn(const HTTPConn&) = delete;
  HTTPConn& operator=(const HTTPConn&) = delete;

  /// Adds what was received.
  void append(std::string_view bytes) { buffer.append(bytes); }
  /// Whether what was received by now is one whole request. To be asked after each read, since one
  /// byte too many makes a request incomplete for good.
  [[nodiscard]] bool requestComplete() { return scanner_.complete(buffer); }
  /// The bytes of the request, once it is complete.
  [[nodiscard]] size_t requestSize() const { return scanner_.size(); }

  lm::Fd fd;
  std::shared_ptr<ServedInterface> device;  ///< never null
  std::string buffer;                       ///< all bytes received so far

 private:
  void timeout();

  HTTPServer& server_;
  RequestScanner scanner_;
  lm::Watch watch_;
  lm::Timer timer_;
};
