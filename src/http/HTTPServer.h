#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "http/HTTPConn.h"
#include "http/RequestHandler.h"

/// The gateway's HTTP server: accepts connections from the listening sockets, collects one request
/// on each, passes it to the handler, writes one reply and closes. It owns the connections.
///
/// Two limits keep one host from taking all descriptors or all memory. Beyond either of them the
/// oldest connection of the address that has the most is closed without a word: a host displaces
/// its own connections, and among hosts with as many each the oldest one goes. Served at once, a
/// request is done long before its connection is the oldest.
class HTTPServer {
 public:
  /// The most connections at a time: a small part of the 1,024 descriptors that a process usually
  /// has, since deliveries and files need some too.
  static constexpr size_t maxConnections = 64;
  /// The most memory in bytes for what all clients together have sent, requests of the largest size
  /// included. What malloc needs on top of it at worst is as much again.
  static constexpr size_t maxReceived = 2UL * 1024 * 1024;

  /// The largest request in bytes. A longer one gets no reply, no matter in which pieces it
  /// arrives.
  static constexpr size_t maxRequest = 64UL * 1024;

  /// `requestHandler` must outlive the server.
  explicit HTTPServer(RequestHandler& requestHandler) : handler_(requestHandler) {}
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  /// To be called before a listening socket is watched. Returns false, after a log line, when
  /// accepting from it could block.
  [[nodiscard]] static bool prepareListener(int listenFd);

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
  /// Closes the oldest connection of the address whose connections have the most by `weigh`.
  void dropFromLargest(size_t (*weigh)(const HTTPConn&));
  void boundReceived();

  RequestHandler& handler_;
  std::map<int, std::unique_ptr<HTTPConn>> conns;  ///< by socket; never null
  uint64_t accepted_ = 0;                          ///< number of connections accepted
};
