// The least that a server can do: scripts/bench compares the gateway's processor time with that of
// this program, which handles as many bytes in the same way and thinks about none of them.
//
// Over TCP it accepts a connection, reads once, writes once and closes, as the gateway serves a
// request. With --datagrams it answers datagrams. What it is asked for begins the request:
//
//   "REPLY_BYTES "                                       a reply of this size
//   "REPLY_BYTES COUNT FIRST_ADDRESS PORT NOTIFY_BYTES " and after it as many messages as the
//                                                        gateway sends to its subscribers
//   "REPLY_BYTES COUNT "                                 as many datagrams of this size

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Fd.h"

namespace {

constexpr std::string_view ok = "HTTP/1.1 200 OK\r\n";

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

sockaddr_in endpoint(in_addr address, unsigned port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_addr = address;
  result.sin_port = htons(static_cast<uint16_t>(port));
  return result;
}

struct Request {
  size_t replyBytes = 0;
  unsigned count = 0;
  in_addr firstAddress = {};
  unsigned port = 0;
  size_t notifyBytes = 0;

  explicit Request(const char* text) {
    std::array<char, 16> address = {};
    std::sscanf(text, "%zu %u %15s %u %zu", &replyBytes, &count, address.data(), &port,
                &notifyBytes);
    inet_aton(address.data(), &firstAddress);
  }
};

/// A text of this size that the client takes for a success.
std::string message(size_t bytes) {
  std::string text(ok);
  text.resize(bytes, 'x');
  return text;
}

lm::Fd boundSocket(int type, unsigned port) {
  lm::Fd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const int on = 1;
  const sockaddr_in address = endpoint({htonl(INADDR_ANY)}, port);
  if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("bind");
  }
  return fd;
}

void sendAll(int fd, const std::string& text) {
  if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    fail("send");
  }
}

/// Connects to every subscriber, sends each its message, and reads what each answers.
void notify(const Request& request) {
  const std::string text = message(request.notifyBytes);
  std::vector<lm::Fd> connections;
  for (uint32_t i = 0; i < request.count; ++i) {
    const sockaddr_in to = endpoint({htonl(ntohl(request.firstAddress.s_addr) + i)}, request.port);
    lm::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) fail("connect");
    connections.push_back(std::move(fd));
  }
  for (const lm::Fd& fd : connections) sendAll(fd.get(), text);
  for (const lm::Fd& fd : connections) {
    std::array<char, 4096> answer;
    if (recv(fd.get(), answer.data(), answer.size(), 0) < 0) fail("recv");
  }
}

[[noreturn]] void serveConnections(unsigned port) {
  const lm::Fd listener = boundSocket(SOCK_STREAM, port);
  if (listen(listener.get(), 1) != 0) fail("listen");
  for (;;) {
    lm::Fd connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.valid()) fail("accept");
    std::array<char, 4097> text = {};
    if (recv(connection.get(), text.data(), text.size() - 1, 0) <= 0) continue;
    const Request request(text.data());
    sendAll(connection.get(), message(request.replyBytes));
    connection.reset();
    if (request.notifyBytes > 0) notify(request);
  }
}

[[noreturn]] void answerDatagrams(unsigned port) {
  const lm::Fd fd = boundSocket(SOCK_DGRAM, port);
  for (;;) {
    std::array<char, 4097> text = {};
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    if (recvfrom(fd.get(), text.data(), text.size() - 1, 0, reinterpret_cast<sockaddr*>(&sender),
                 &length) < 0) {
      fail("recvfrom");
    }
    const Request request(text.data());
    const std::string reply = message(request.replyBytes);
    for (unsigned i = 0; i < request.count; ++i) {
      if (sendto(fd.get(), reply.data(), reply.size(), 0,
                 reinterpret_cast<const sockaddr*>(&sender), length) < 0) {
        fail("sendto");
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool datagrams = argc == 3 && std::strcmp(argv[1], "--datagrams") == 0;
  if (argc != (datagrams ? 3 : 2)) {
    std::fputs("Usage: bare_server [--datagrams] PORT\n", stderr);
    return 2;
  }
  const auto port = static_cast<unsigned>(std::strtoul(argv[argc - 1], nullptr, 10));
  if (datagrams) answerDatagrams(port);
  serveConnections(port);
}
