#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "http/HTTPConn.h"
#include "http/RequestHandler.h"

/// The HTTP side of the gateway: takes connections from the listening sockets, collects one request
/// on each, has it handled, writes one reply and closes. It owns the connections.
class HTTPServer {
 public:
  /// The most bytes that a request may have. A longer one gets no reply, whatever the pieces in
  /// which it arrives.
  static constexpr size_t maxRequest = 64UL * 1024;

  /// `requestHandler` must outlive the server.
  explicit HTTPServer(RequestHandler& requestHandler) : handler_(requestHandler) {}
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  /// To be called when a listening socket is ready. A listening socket that the handler does not
  /// know ends the process with exit status 1. Returns whether it accepted a connection.
  bool acceptHttp(int listenFd);

  /// To be called when a connection is ready. One that is not ours ends the process with exit
  /// status 1.
  void readHttp(int fd);

  /// Closes and frees a connection.
  void drop(int fd) { conns.erase(fd); }

  [[nodiscard]] size_t openConnections() const { return conns.size(); }

 private:
  void reply(HTTPConn& conn);

  RequestHandler& handler_;
  std::map<int, std::unique_ptr<HTTPConn>> conns;  ///< by socket; never null
};
