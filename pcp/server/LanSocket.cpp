#include "pcp/server/LanSocket.h"

#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "pcp/codec/Pcp.h"

namespace pcp {

namespace {

constexpr uint16_t serverPort = 5351;
// RFC 6886 section 3.2.1, RFC 6887 section 14.1.
constexpr uint16_t announcementPort = 5350;
constexpr IpAddress allIpv4Hosts = IpAddress::mapped({224, 0, 0, 1});
constexpr IpAddress allIpv6Hosts = {{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
// Other sockets, timers and the platform come in between.
constexpr int mostAtOnce = 32;

/// The terms in which the kernel speaks of a version of IP.
struct Terms {
  int domain;
  int level;
  int wantDestination;
  int multicastLoop;
  uint32_t endOfSource;  // the last word of the source address in the header of a packet
  IpAddress unspecified;
};

Terms termsOf(LanSocket::Family family) {
  if (family == LanSocket::Family::ipv4) {
    return {AF_INET, IPPROTO_IP, IP_PKTINFO, IP_MULTICAST_LOOP, 12, IpAddress::mapped({})};
  }
  return {AF_INET6, IPPROTO_IPV6, IPV6_RECVPKTINFO, IPV6_MULTICAST_LOOP, 20, {}};
}

IpAddress ipv4Of(const in_addr& address) {
  return IpAddress::mapped(lumen::Ipv4Address::fromBytes(address.s_addr));
}

IpAddress ipv6Of(const in6_addr& address) {
  IpAddress result;
  memcpy(result.bytes.data(), &address, sizeof address);
  return result;
}

/// Where a datagram comes from or goes to.
struct Peer {
  sockaddr_storage address = {};
  socklen_t length = sizeof address;

  Peer() = default;
  /// `index` is of the interface of a link-local address.
  Peer(const IpAddress& ip, uint16_t port, uint32_t index) {
    if (const auto ipv4 = ip.ipv4()) {
      sockaddr_in to = {};
      to.sin_family = AF_INET;
      to.sin_port = htons(port);
      to.sin_addr.s_addr = ipv4->bytes();
      set(to);
    } else {
      sockaddr_in6 to = {};
      to.sin6_family = AF_INET6;
      to.sin6_port = htons(port);
      to.sin6_scope_id = index;
      memcpy(&to.sin6_addr, ip.bytes.data(), ip.bytes.size());
      set(to);
    }
  }

  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  [[nodiscard]] IpAddress ip() const {
    if (address.ss_family == AF_INET) return ipv4Of(as<sockaddr_in>().sin_addr);
    return ipv6Of(as<sockaddr_in6>().sin6_addr);
  }

 private:
  template <typename Address>
  void set(const Address& to) {
    length = sizeof to;
    memcpy(&address, &to, sizeof to);
  }
  template <typename Address>
  [[nodiscard]] Address as() const {
    Address result;
    memcpy(&result, &address, sizeof result);
    return result;
  }
};

/// A datagram with its peer, and room for the one control message that comes and goes with it.
struct Envelope {
  Peer peer;
  iovec part;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> control = {};

  [[nodiscard]] msghdr header() {
    msghdr message = {};
    message.msg_name = &peer.address;
    message.msg_namelen = peer.length;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = sizeof control;
    return message;
  }
};

/// The address to which the datagram was sent.
std::optional<IpAddress> destinationOf(const msghdr& message) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&message);
  if (control == nullptr) return std::nullopt;
  if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO) {
    in_pktinfo info;
    memcpy(&info, CMSG_DATA(control), sizeof info);
    return ipv4Of(info.ipi_addr);
  }
  if (control->cmsg_level == IPPROTO_IPV6 && control->cmsg_type == IPV6_PKTINFO) {
    in6_pktinfo info;
    memcpy(&info, CMSG_DATA(control), sizeof info);
    return ipv6Of(info.ipi6_addr);
  }
  return std::nullopt;
}

template <typename Info>
void setControl(msghdr& message, int level, int type, const Info& info) {
  message.msg_controllen = CMSG_SPACE(sizeof info);
  cmsghdr* const control = CMSG_FIRSTHDR(&message);
  control->cmsg_level = level;
  control->cmsg_type = type;
  control->cmsg_len = CMSG_LEN(sizeof info);
  memcpy(CMSG_DATA(control), &info, sizeof info);
}

/// By the interface `index`. Hosts ask again for what is lost on the way.
void send(int fd, std::span<const uint8_t> datagram, const Peer& to, const IpAddress& from,
          uint32_t index) {
  Envelope envelope = {to, {const_cast<uint8_t*>(datagram.data()), datagram.size()}};
  msghdr message = envelope.header();
  if (const auto ipv4 = from.ipv4()) {
    in_pktinfo info = {};
    info.ipi_ifindex = static_cast<int>(index);
    info.ipi_spec_dst.s_addr = ipv4->bytes();
    setControl(message, IPPROTO_IP, IP_PKTINFO, info);
  } else {
    in6_pktinfo info = {};
    info.ipi6_ifindex = index;
    memcpy(&info.ipi6_addr, from.bytes.data(), from.bytes.size());
    setControl(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
  }
  (void)sendmsg(fd, &message, MSG_NOSIGNAL);
}

/// One of the sockets of this interface; none with errno.
lm::Fd openSocket(const Terms& terms, const std::string& interface) {
  lm::Fd fd(socket(terms.domain, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  std::array<char, IFNAMSIZ> name = {};
  interface.copy(name.data(), name.size() - 1);
  const auto set = [&](int level, int option, int value) {
    return setsockopt(fd.get(), level, option, &value, sizeof value) == 0;
  };
  const Peer here(terms.unspecified, serverPort, 0);
  const bool opened =
      fd.valid() &&
      setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size()) == 0 &&
      set(SOL_SOCKET, SO_REUSEPORT, 1) && set(terms.level, terms.wantDestination, 1) &&
      set(terms.level, terms.multicastLoop, 0) &&
      (terms.domain != AF_INET6 || set(IPPROTO_IPV6, IPV6_V6ONLY, 1)) &&
      bind(fd.get(), here.get(), here.length) == 0;
  return opened ? std::move(fd) : lm::Fd();
}

/// Chooses among the sockets of a port, of which `fd` is one, by the end of the source address:
/// neighbours get different ones.
bool spreadHosts(int fd, uint32_t endOfSource, uint32_t sockets) {
  constexpr auto networkHeader = static_cast<uint32_t>(SKF_NET_OFF);
  sock_filter program[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, networkHeader + endOfSource},
      {BPF_ALU | BPF_MOD | BPF_K, 0, 0, sockets},
      {BPF_RET | BPF_A, 0, 0, 0},
  };
  const sock_fprog all = {std::size(program), program};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_REUSEPORT_CBPF, &all, sizeof all) == 0;
}

}  // namespace

lumen::Result<void> LanSocket::open() {
  const Terms terms = termsOf(family_);
  for (Lane& lane : lanes_) {
    lane.fd = openSocket(terms, place_.link.name);
    if (lane.fd.valid()) continue;
    const int error = errno;
    if (error == EAFNOSUPPORT && family_ == Family::ipv6) return {};
    return failure(error);
  }
  if (!spreadHosts(lanes_.front().fd.get(), terms.endOfSource, laneCount)) return failure(errno);
  for (Lane& lane : lanes_) {
    lane.watch.start<&LanSocket::ready>(lane.fd.get(), *this, lm::watchRead);
  }
  return {};
}

lumen::Failure LanSocket::failure(int error) const {
  return {std::string("UDP port 5351 ") + (family_ == Family::ipv6 ? "of IPv6 " : "") + "on " +
          place_.link.name + ": " +
          (error == EADDRINUSE ? "taken by another program" : strerror(error))};
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
  Envelope envelope = {{}, {bytes.data(), bytes.size()}};
  msghdr message = envelope.header();
  const ssize_t size = recvmsg(fd, &message, 0);
  if (size < 0) return false;
  envelope.peer.length = message.msg_namelen;
  const auto asked = destinationOf(message);
  const IpAddress source = envelope.peer.ip();
  // A mapped address in a packet of IPv6 is no host of IPv4 (RFC 4942 section 2.2).
  const bool foreign = source.ipv4().has_value() != (family_ == Family::ipv4);
  if (!asked || !isOwn(*asked) || foreign) return true;
  const auto answer = site_.answer({bytes.data(), static_cast<size_t>(size)}, source);
  if (answer) send(lanes_.front().fd.get(), *answer, envelope.peer, *asked, place_.link.index);
  return true;
}

bool LanSocket::isOwn(const IpAddress& address) const {
  if (family_ == Family::ipv6) return address.bytes[0] != 0xff;  // no multicast group
  const auto ipv4 = address.ipv4();
  return ipv4 && std::ranges::count(place_.addresses, *ipv4) > 0;
}

// A host takes it from the address that it asks only (RFC 6886 section 3.2.1).
void LanSocket::announce(std::span<const uint8_t> datagram) {
  const int fd = lanes_.front().fd.get();
  const uint32_t index = place_.link.index;
  if (fd < 0) return;
  if (family_ == Family::ipv6) {
    send(fd, datagram, Peer(allIpv6Hosts, announcementPort, index), {}, index);
    return;
  }
  const Peer all(allIpv4Hosts, announcementPort, index);
  for (const lumen::Ipv4Address own : place_.addresses) {
    send(fd, datagram, all, IpAddress::mapped(own), index);
  }
}

}  // namespace pcp
