#include "support/Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace lm::test {
namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

}  // namespace

SocketPair::SocketPair(int type) {
  std::array<int, 2> fds{-1, -1};
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds.data()) != 0) return;
  ours.reset(fds[0]);
  peer.reset(fds[1]);
}

TcpListener::TcpListener(int backlog, const char* address)
    : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_in bound = loopback(0);
  bound.sin_addr.s_addr = inet_addr(address);
  socklen_t length = sizeof bound;
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&bound), length) != 0 ||
      listen(fd.get(), backlog) != 0 ||
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    fd.reset();
  }
  port = ntohs(bound.sin_port);
}

Fd TcpListener::connect() const {
  Fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_in address = loopback(port);
  // On loopback a connection is made before the call returns, though it reports EINPROGRESS.
  (void)::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return client;
}

std::string readAvailable(int fd) {
  std::string result;
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got <= 0) return result;
    result.append(buffer.data(), static_cast<size_t>(got));
  }
}

bool writeText(int fd, const std::string& text) {
  return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool waitFor(int fd, short events) {
  pollfd look{fd, events, 0};
  return poll(&look, 1, 5000) == 1 && (look.revents & events) != 0;
}

}  // namespace lm::test
