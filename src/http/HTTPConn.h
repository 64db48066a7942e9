#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "http/RequestScanner.h"
#include "http/ServedInterface.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

class HTTPServer;

/// One accepted connection, from accept to the reply. Its destructor closes the socket.
class HTTPConn {
 public:
  /// The time limit for receiving a request, from accept on, in hundredths of a second.
  static constexpr uint32_t timeLimit = 1000;

  /// Watches `socket` on behalf of `owner`, which owns this connection and outlives it, and starts
  /// the time limit. `clientAddress` is in network byte order; `number` increases from connection
  /// to connection.
  HTTPConn(lm::Fd socket, uint32_t clientAddress, uint64_t number,
           std::shared_ptr<ServedInterface> servedInterface, HTTPServer& owner);
  HTTPConn(const HTTPConn&) = delete;
  HTTPConn& operator=(const HTTPConn&) = delete;

  /// Adds received bytes.
  void append(std::string_view bytes) { buffer.append(bytes); }
  /// Whether the bytes received are one complete request. Must be called after each read: a single
  /// byte too many makes a request incomplete forever.
  [[nodiscard]] bool requestComplete() { return scanner_.complete(buffer); }
  /// The size of the request in bytes, once it is complete.
  [[nodiscard]] size_t requestSize() const { return scanner_.size(); }

  lm::Fd fd;
  const uint32_t client;  ///< its address, network byte order
  const uint64_t serial;
  std::shared_ptr<ServedInterface> device;  ///< never null
  std::string buffer;                       ///< all bytes received

 private:
  void timeout();

  HTTPServer& server_;
  RequestScanner scanner_;
  lm::Watch watch_;
  lm::Timer timer_;
};
