#pragma once

#include <cstdint>
#include <string>

#include "platform/Fd.h"

namespace lm::test {

/// Two connected sockets that do not block.
struct SocketPair {
  /// `type` as of socketpair: SOCK_STREAM, SOCK_DGRAM or SOCK_SEQPACKET.
  explicit SocketPair(int type);

  Fd ours;
  Fd peer;
};

/// A TCP socket that listens on a free port of an address of loopback and does not block.
struct TcpListener {
  explicit TcpListener(int backlog, const char* address = "127.0.0.1");

  /// A client's socket, connected or about to be; it does not block.
  [[nodiscard]] Fd connect() const;

  Fd fd;
  uint16_t port = 0;
};

/// All that can be read without waiting.
std::string readAvailable(int fd);

/// Writes all of `text`; false when it could not.
bool writeText(int fd, const std::string& text);

/// Waits for `events`, as of poll, for at most 5 seconds.
[[nodiscard]] bool waitFor(int fd, short events);

}  // namespace lm::test
