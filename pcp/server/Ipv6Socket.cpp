#include "pcp/server/Ipv6Socket.h"

#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "pcp/codec/Pcp.h"

namespace pcp {

namespace {

constexpr uint16_t serverPort = 5351;
constexpr uint16_t announcementPort = 5350;
// Other sockets, timers and the platform come in between.
constexpr int mostAtOnce = 32;

/// Room for the one control message that comes and goes with each datagram.
struct Control {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> bytes = {};
};

/// The address to which the datagram was sent.
std::optional<in6_addr> destinationOf(const msghdr& message) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&message);
  if (control == nullptr || control->cmsg_level != IPPROTO_IPV6 ||
      control->cmsg_type != IPV6_PKTINFO) {
    return std::nullopt;
  }
  in6_pktinfo info;
  memcpy(&info, CMSG_DATA(control), sizeof info);
  return info.ipi6_addr;
}

/// One of the sockets of this interface; none with errno.
lm::Fd openSocket(const std::string& interface) {
  lm::Fd fd(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  std::array<char, IFNAMSIZ> name = {};
  interface.copy(name.data(), name.size() - 1);
  const int on = 1;
  const int off = 0;
  sockaddr_in6 here = {};
  here.sin6_family = AF_INET6;
  here.sin6_port = htons(serverPort);
  const bool opened =
      fd.valid() &&
      setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size()) == 0 &&
      setsockopt(fd.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0 &&
      setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0 &&
      setsockopt(fd.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) == 0 &&
      setsockopt(fd.get(), IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &off, sizeof off) == 0 &&
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) == 0;
  return opened ? std::move(fd) : lm::Fd();
}

/// Chooses among the sockets of a port, of which `fd` is one, by the end of the source address:
/// neighbours get different ones.
bool spreadHosts(int fd, uint32_t sockets) {
  constexpr auto networkHeader = static_cast<uint32_t>(SKF_NET_OFF);
  constexpr uint32_t endOfSourceAddress = 20;  // in the header of IPv6
  sock_filter program[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, networkHeader + endOfSourceAddress},
      {BPF_ALU | BPF_MOD | BPF_K, 0, 0, sockets},
      {BPF_RET | BPF_A, 0, 0, 0},
  };
  const sock_fprog all = {std::size(program), program};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_REUSEPORT_CBPF, &all, sizeof all) == 0;
}

/// Hosts ask again for what is lost on the way.
void send(int fd, std::span<const uint8_t> datagram, sockaddr_in6 to, const in6_pktinfo& from) {
  Control control;
  iovec part = {const_cast<uint8_t*>(datagram.data()), datagram.size()};
  msghdr message = {};
  message.msg_name = &to;
  message.msg_namelen = sizeof to;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_IPV6;
  header->cmsg_type = IPV6_PKTINFO;
  header->cmsg_len = CMSG_LEN(sizeof from);
  memcpy(CMSG_DATA(header), &from, sizeof from);
  (void)sendmsg(fd, &message, MSG_NOSIGNAL);
}

}  // namespace

lumen::Result<void> Ipv6Socket::open() {
  for (Lane& lane : lanes_) {
    lane.fd = openSocket(link_.name);
    if (!lane.fd.valid()) {
      const int error = errno;
      if (error == EAFNOSUPPORT) return {};
      const std::string where = "UDP port 5351 of IPv6 on " + link_.name;
      if (error == EADDRINUSE) return lumen::Failure{where + ": taken by another program"};
      return lumen::Failure{where + ": " + strerror(error)};
    }
  }
  if (!spreadHosts(lanes_.front().fd.get(), laneCount)) {
    return lumen::Failure{"UDP port 5351 of IPv6 on " + link_.name + ": " + strerror(errno)};
  }
  for (Lane& lane : lanes_) {
    lane.watch.start<&Ipv6Socket::ready>(lane.fd.get(), *this, lm::watchRead);
  }
  return {};
}

bool Ipv6Socket::ready(int fd) {
  int answered = 0;
  while (answered < mostAtOnce && answerOne(fd)) ++answered;
  return answered > 0;
}

// Returns whether there was a datagram.
bool Ipv6Socket::answerOne(int fd) {
  // One that is too long is seen to be.
  std::array<uint8_t, longestMessage + 4> bytes;
  Control control;
  sockaddr_in6 source = {};
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
  if (!asked || IN6_IS_ADDR_MULTICAST(&*asked)) return true;
  lumen::Ipv6Address::Bytes host;
  memcpy(host.data(), &source.sin6_addr, host.size());
  const auto answer =
      site_.answer({bytes.data(), static_cast<size_t>(size)}, lumen::Ipv6Address(host));
  if (answer) send(lanes_.front().fd.get(), *answer, source, {*asked, link_.index});
  return true;
}

void Ipv6Socket::announce(std::span<const uint8_t> datagram) {
  if (!lanes_.front().fd.valid()) return;
  sockaddr_in6 all = {};
  all.sin6_family = AF_INET6;
  all.sin6_port = htons(announcementPort);
  all.sin6_addr.s6_addr[0] = 0xff;
  all.sin6_addr.s6_addr[1] = 0x02;
  all.sin6_addr.s6_addr[15] = 1;
  all.sin6_scope_id = link_.index;
  send(lanes_.front().fd.get(), datagram, all, {in6addr_any, link_.index});
}

}  // namespace pcp
