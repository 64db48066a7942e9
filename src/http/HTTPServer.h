#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "http/HTTPConn.h"
#include "http/RequestHandler.h"

/// The gateway's HTTP server: accepts connections from the listening sockets, collects one request
/// on each, passes it to the handler, writes one reply and closes. It owns the connections.
class HTTPServer {
 public:
  /// The largest request in bytes. A longer one gets no reply, no matter in which pieces it
  /// arrives.
  static constexpr size_t maxRequest = 64UL * 1024;

  /// `requestHandler` must outlive the server.
  explicit HTTPServer(RequestHandler& requestHandler) : handler_(requestHandler) {}
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  /// To be called when a listening socket is ready. A socket unknown to the handler ends the
  /// process with exit status 1. Returns whether a connection was accepted.
  bool acceptHttp(int listenFd);

  /// To be called when a connection is ready. A descriptor that is none of ours ends the process
  /// with exit status 1.
  void readHttp(int fd);

  /// Closes and frees a connection.
  void drop(int fd) { conns.erase(fd); }

  [[nodiscard]] size_t openConnections() const { return conns.size(); }

 private:
  void reply(HTTPConn& conn);

  RequestHandler& handler_;
  std::map<int, std::unique_ptr<HTTPConn>> conns;  ///< by socket; never null
};
