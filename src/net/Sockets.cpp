#include "net/Sockets.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/Log.h"
#include "platform/Fd.h"

namespace {

constexpr uint8_t multicastTtl = 4;
constexpr int backlog = 1;
constexpr unsigned int unreadLimit = 10000;  // milliseconds
constexpr timeval writeLimit = {0, 10000};   // seconds, microseconds

/// The bytes that one packet has room for on any usual LAN.
constexpr size_t onePacket = 1400;

/// Logs `what` with the text of errno.
void logError(const char* what) { logLine(what, ": ", strerror(errno)); }

/// Does the same and returns the failure value of the makers.
int failed(const char* what) {
  logError(what);
  return -1;
}

bool bindToDevice(int fd, const std::string& ifname) {
  // The kernel refuses a name that fills the buffer, which leaves no room for the final zero.
  std::array<char, IFNAMSIZ> name = {};
  ifname.copy(name.data(), name.size());
  return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size()) == 0;
}

bool reuseAddress(int fd) {
  const int on = 1;
  return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

/// Lets the connection take a text of this size, and limits the wait for its peer. Returns false
/// after a log line.
bool makeRoom(int fd, size_t size) {
  // A peer with a small window causes small segments, and the kernel charges several hundred bytes
  // of overhead for each.
  constexpr size_t overhead = 4;
  constexpr size_t most = 64UL * 1024 * 1024;  // above the system's own limit
  const auto room = static_cast<int>(std::min(overhead * size, most));
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room) != 0) {
    logError("setsockopt SO_SNDBUF");
    return false;
  }
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &writeLimit, sizeof writeLimit) != 0) {
    logError("setsockopt SO_SNDTIMEO");
    return false;
  }
  return true;
}

bool sendAll(int fd, std::string_view text) {
  const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
  return sent >= 0 && static_cast<size_t>(sent) == text.size();
}

/// See writeOnce. `flags` are send(2)'s, for what the buffer takes at once.
bool write(int fd, std::string_view text, int flags) {
  // A new connection takes an answer of usual size at once.
  const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT | flags);
  if (sent < 0 && errno != EAGAIN) return false;
  const std::string_view rest = text.substr(static_cast<size_t>(std::max<ssize_t>(sent, 0)));
  return rest.empty() || (makeRoom(fd, text.size()) && sendAll(fd, rest));
}

bool bindToPort(int fd, unsigned int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

int makeUdpSocket(const std::string& ifname) {
  lm::Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return failed("udp socket");
  if (!bindToDevice(fd.get(), ifname)) return failed("udp setsockopt SO_BINDTODEVICE");
  return fd.release();
}

int makeDiscoverySocket(const std::string& ifname, unsigned int ifindex, unsigned int ifaddr) {
  lm::Fd fd(makeUdpSocket(ifname));
  if (!fd.valid()) return -1;
  if (!reuseAddress(fd.get())) return failed("setsockopt SO_REUSEADDR");
  if (!bindToPort(fd.get(), SSDP_PORT)) return failed("udp bind");

  ip_mreqn group = {};
  group.imr_multiaddr.s_addr = inet_addr(SSDP_IP);
  group.imr_address.s_addr = ifaddr;
  group.imr_ifindex = static_cast<int>(ifindex);
  if (setsockopt(fd.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
    return failed("setsockopt IP_ADD_MEMBERSHIP");
  }
  if (setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, &multicastTtl, sizeof multicastTtl) != 0) {
    return failed("setsockopt IP_MULTICAST_TTL");
  }
  return fd.release();
}

int makeTcpSocket(const std::string& ifname, unsigned int port) {
  lm::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return failed("tcp socket");
  if (!bindToDevice(fd.get(), ifname)) return failed("setsockopt SO_BINDTODEVICE");
  if (!reuseAddress(fd.get())) return failed("setsockopt SO_REUSEADDR");
  if (!bindToPort(fd.get(), port)) return failed("tcp bind");
  if (listen(fd.get(), backlog) != 0) return failed("tcp listen");
  return fd.release();
}

void dropWhenUnread(int fd) {
  if (setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &unreadLimit, sizeof unreadLimit) != 0) {
    logError("setsockopt TCP_USER_TIMEOUT");
  }
}

bool writeOnce(int fd, std::string_view text) { return write(fd, text, 0); }

bool writeLast(int fd, std::string_view text) {
  // Most of the cost of an answer is its way through the kernel, packet by packet. A longer text
  // would rather gain a packet: its last segment would not leave with the others.
  return write(fd, text, text.size() <= onePacket ? MSG_MORE : 0);
}
