#include "pcp/server/LanSocket.h"

#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "pcp/codec/Pcp.h"

namespace pcp {

namespace {

constexpr uint16_t serverPort = 5351;
// RFC 6886 section 3.2.1, RFC 6887 section 14.1.
constexpr lumen::Endpoint allHosts = {{224, 0, 0, 1}, 5350};
// Other sockets, timers and the platform come in between.
constexpr int mostAtOnce = 32;

sockaddr_in socketAddress(lumen::Endpoint endpoint) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  address.sin_addr.s_addr = endpoint.address.bytes();
  return address;
}

/// Room for the one control message that comes and goes with each datagram.
struct Control {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> bytes = {};
};

/// The address to which the datagram was sent.
std::optional<lumen::Ipv4Address> destinationOf(const msghdr& message) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&message);
  if (control == nullptr || control->cmsg_level != IPPROTO_IP || control->cmsg_type != IP_PKTINFO) {
    return std::nullopt;
  }
  in_pktinfo info;
  memcpy(&info, CMSG_DATA(control), sizeof info);
  return lumen::Ipv4Address::fromBytes(info.ipi_addr.s_addr);
}

/// One of the sockets of this interface; none with errno.
lm::Fd openSocket(const std::string& interface) {
  lm::Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  std::array<char, IFNAMSIZ> name = {};
  interface.copy(name.data(), name.size() - 1);
  const int on = 1;
  const int off = 0;
  const sockaddr_in here = socketAddress({{}, serverPort});
  const bool opened =
      fd.valid() &&
      setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size()) == 0 &&
      setsockopt(fd.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0 &&
      setsockopt(fd.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0 &&
      setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off) == 0 &&
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) == 0;
  return opened ? std::move(fd) : lm::Fd();
}

/// Chooses among the sockets of a port, of which `fd` is one, by the source address: neighbours get
/// different ones.
bool spreadHosts(int fd, uint32_t sockets) {
  constexpr auto networkHeader = static_cast<uint32_t>(SKF_NET_OFF);
  constexpr uint32_t sourceAddress = 12;  // in the header of IPv4
  sock_filter program[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, networkHeader + sourceAddress},
      {BPF_ALU | BPF_MOD | BPF_K, 0, 0, sockets},
      {BPF_RET | BPF_A, 0, 0, 0},
  };
  const sock_fprog all = {std::size(program), program};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_REUSEPORT_CBPF, &all, sizeof all) == 0;
}

}  // namespace

lumen::Result<void> LanSocket::open() {
  for (Lane& lane : lanes_) {
    lane.fd = openSocket(place_.interface);
    if (!lane.fd.valid()) {
      const int error = errno;
      const std::string where = "UDP port 5351 on " + place_.interface;
      if (error == EADDRINUSE) return lumen::Failure{where + ": taken by another program"};
      return lumen::Failure{where + ": " + strerror(error)};
    }
  }
  if (!spreadHosts(lanes_.front().fd.get(), laneCount)) {
    return lumen::Failure{"UDP port 5351 on " + place_.interface + ": " + strerror(errno)};
  }
  for (Lane& lane : lanes_) {
    lane.watch.start<&LanSocket::ready>(lane.fd.get(), *this, lm::watchRead);
  }
  return {};
}

bool LanSocket::ready(int fd) {
  int answered = 0;
  while (answered < mostAtOnce && answerOne(fd)) ++answered;
  return answered > 0;
}

// Returns whether there was a datagram.
bool LanSocket::answerOne(int fd) {
  // One that is too long is seen to be.
  std::array<uint8_t, longestMessage + 4> bytes;
  Control control;
  sockaddr_in source = {};
  iovec part = {bytes.data(), bytes.size()};
  msghdr message = {};
  message.msg_name = &source;
  message.msg_namelen = sizeof source;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  const ssize_t size = recvmsg(fd, &message, 0);
  if (size < 0) return false;
  const auto asked = destinationOf(message);
  const auto& own = place_.addresses;
  if (!asked || std::find(own.begin(), own.end(), *asked) == own.end()) return true;
  const lumen::Endpoint host = {lumen::Ipv4Address::fromBytes(source.sin_addr.s_addr),
                                ntohs(source.sin_port)};
  const auto answer = site_.answer({bytes.data(), static_cast<size_t>(size)}, host.address);
  if (answer) send(*answer, host, *asked);
  return true;
}

// A host takes it from the address that it asks only (RFC 6886 section 3.2.1).
void LanSocket::announce(std::span<const uint8_t> datagram) {
  for (const lumen::Ipv4Address& own : place_.addresses) send(datagram, allHosts, own);
}

// Hosts ask again for what is lost on the way.
void LanSocket::send(std::span<const uint8_t> datagram, lumen::Endpoint to,
                     lumen::Ipv4Address from) {
  Control control;
  sockaddr_in target = socketAddress(to);
  iovec part = {const_cast<uint8_t*>(datagram.data()), datagram.size()};
  msghdr message = {};
  message.msg_name = &target;
  message.msg_namelen = sizeof target;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_IP;
  header->cmsg_type = IP_PKTINFO;
  header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
  in_pktinfo info = {};
  info.ipi_ifindex = static_cast<int>(place_.index);
  info.ipi_spec_dst.s_addr = from.bytes();
  memcpy(CMSG_DATA(header), &info, sizeof info);
  (void)sendmsg(lanes_.front().fd.get(), &message, MSG_NOSIGNAL);
}

}  // namespace pcp
