#include "http/HTTPServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <utility>

#include "base/Log.h"
#include "http/MessageLines.h"
#include "net/Sockets.h"

namespace {

/// Discards further bytes from the client, up to the size of a request. Closing a socket with
/// unread bytes resets the connection (RFC 9293 section 3.6.1), which can destroy the reply in
/// transit.
void discardReceived(int fd) {
  std::array<char, BUFLEN> bytes;
  for (size_t read = 0; read < HTTPServer::maxRequest; read += bytes.size()) {
    if (recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) <= 0) return;
  }
}

}  // namespace

bool HTTPServer::prepareListener(int listenFd) {
  // The client may have left since the socket became ready, and the loop must not block until the
  // next one arrives.
  if (fcntl(listenFd, F_SETFL, O_NONBLOCK) != 0) {
    logLine("fcntl O_NONBLOCK: ", strerror(errno));
    return false;
  }
  dropWhenUnread(listenFd);
  return true;
}

bool HTTPServer::acceptHttp(int listenFd) {
  sockaddr_in client = {};
  socklen_t length = sizeof client;
  lm::Fd accepted(accept4(listenFd, reinterpret_cast<sockaddr*>(&client), &length, SOCK_CLOEXEC));
  if (!accepted.valid()) {
    logLine("accept failed");
    return false;
  }
  auto device = handler_.findListener(listenFd);
  if (!device) {
    logLine("oo jeaaa");
    exit(1);
  }
  const int fd = accepted.get();
  conns[fd] = std::make_unique<HTTPConn>(std::move(accepted), client.sin_addr.s_addr, ++accepted_,
                                         std::move(device), *this);
  if (conns.size() > maxConnections) dropFromLargest([](const HTTPConn&) { return size_t{1}; });
  return true;
}

void HTTPServer::readHttp(int fd) {
  const auto found = conns.find(fd);
  if (found == conns.end()) {
    logLine("fatal error: could not find http conn");
    exit(1);
  }
  HTTPConn& conn = *found->second;
  std::array<char, BUFLEN> bytes;
  const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) {
    drop(fd);
    return;
  }
  conn.append({bytes.data(), static_cast<size_t>(size)});
  const bool complete = conn.requestComplete();
  const bool tooLong = (complete ? conn.requestSize() : conn.buffer.size()) > maxRequest;
  if (complete && !tooLong) reply(conn);
  if (complete || tooLong) {
    drop(fd);
  } else {
    boundReceived();
  }
}

void HTTPServer::boundReceived() {
  const auto memory = [](const HTTPConn& conn) { return conn.buffer.capacity(); };
  const auto received = [&] {
    return std::accumulate(
        conns.begin(), conns.end(), size_t{0},
        [&](size_t sum, const auto& entry) { return sum + memory(*entry.second); });
  };
  while (received() > maxReceived) dropFromLargest(memory);
}

void HTTPServer::dropFromLargest(size_t (*weigh)(const HTTPConn&)) {
  std::map<uint32_t, size_t> shares;  // by address
  for (const auto& [fd, conn] : conns) shares[conn->client] += weigh(*conn);
  const auto comesFirst = [&](const auto& a, const auto& b) {
    const size_t shareOfA = shares[a.second->client];
    const size_t shareOfB = shares[b.second->client];
    return shareOfA != shareOfB ? shareOfA > shareOfB : a.second->serial < b.second->serial;
  };
  conns.erase(std::ranges::min_element(conns, comesFirst));
}

void HTTPServer::reply(HTTPConn& conn) {
  const HTTPMessage request(conn.buffer);
  const auto [method, url] = parseRequestLine(request.startLine);
  const std::string text = handler_.handleHttpRequest(*conn.device, request, method, url).get();
  if (!writeLast(conn.fd.get(), text)) logLine("write error");
  discardReceived(conn.fd.get());
}
