#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace lumen {

/// Bytes as the kernel of a little-endian machine sent them, written as hexadecimal text.
class NetlinkBytes {
 public:
  NetlinkBytes(std::initializer_list<std::string_view> lines) {
    for (const std::string_view line : lines) append(line);
  }

  [[nodiscard]] std::vector<std::byte>& bytes() { return bytes_; }
  [[nodiscard]] std::span<const std::byte> span() const { return bytes_; }

 private:
  static unsigned digit(char c) { return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10); }

  void append(std::string_view line) {
    for (size_t i = 0; i + 1 < line.size();) {
      if (line[i] == ' ') {
        ++i;
        continue;
      }
      bytes_.push_back(static_cast<std::byte>(digit(line[i]) * 16 + digit(line[i + 1])));
      i += 2;
    }
  }

  std::vector<std::byte> bytes_;
};

// What Linux 6.18 sent. Of links, attributes that are not read here are left out.

/// RTM_NEWLINK, the answer to a request for a link that is up and running.
inline const NetlinkBytes linkWithCounters{
    "08 01 00 00 10 00 00 00 09 00 00 00 98 40 00 00",  // 264 bytes, RTM_NEWLINK, sequence 9
    "00 00 01 00 03 00 00 00 43 10 01 00 00 00 00 00",  // ARPHRD_ETHER, index 3, flags 0x11043
    "09 00 03 00 77 61 6e 30 00 00 00 00",              // IFLA_IFNAME "wan0"
    "05 00 10 00 06 00 00 00",                          // IFLA_OPERSTATE up
    "08 00 04 00 dc 05 00 00",                          // IFLA_MTU 1500
    "cc 00 17 00 05 00 00 00 00 00 00 00",              // IFLA_STATS64: 5 packets received
    "03 00 00 00 00 00 00 00 72 01 00 00 00 00 00 00",  // 3 packets sent, 370 bytes received
    "aa 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00",  // 426 bytes sent
    "00 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00",  // 5 dropped
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"};

/// RTM_DELLINK, `ip link del wan1`.
inline const NetlinkBytes linkDeleted{
    "34 00 00 00 11 00 00 00 00 00 00 00 00 00 00 00",  // 52 bytes, RTM_DELLINK
    "00 00 01 00 05 00 00 00 02 10 00 00 ff ff ff ff",  // AF_UNSPEC, index 5
    "09 00 03 00 77 61 6e 31 00 00 00 00",              // IFLA_IFNAME "wan1"
    "08 00 0d 00 e8 03 00 00"};                         // IFLA_TXQLEN 1000

/// RTM_DELLINK of the family AF_BRIDGE, `ip link set wan1 nomaster`: the link stays.
inline const NetlinkBytes portLeftBridge{
    "58 00 00 00 11 00 00 00 00 00 00 00 00 00 00 00",  // 88 bytes, RTM_DELLINK
    "07 00 01 00 05 00 00 00 43 10 01 00 00 00 00 00",  // AF_BRIDGE, index 5
    "09 00 03 00 77 61 6e 31 00 00 00 00",              // IFLA_IFNAME "wan1"
    "08 00 0a 00 06 00 00 00",                          // IFLA_MASTER 6
    "08 00 04 00 dc 05 00 00",                          // IFLA_MTU 1500
    "05 00 10 00 06 00 00 00",                          // IFLA_OPERSTATE up
    "0a 00 01 00 0e 0f b5 8f 1f 47 00 00",              // IFLA_ADDRESS
    "08 00 05 00 04 00 00 00"};                         // IFLA_LINK 4

/// RTM_NEWADDR, `ip addr add 45.45.45.2/24 brd + dev wan0`.
inline const NetlinkBytes addressAdded{
    "58 00 00 00 14 00 00 00 03 38 00 6b 78 3f 00 00",  // 88 bytes, RTM_NEWADDR
    "02 18 80 00 03 00 00 00",                          // AF_INET, /24, permanent, index 3
    "08 00 01 00 2d 2d 2d 02",                          // IFA_ADDRESS 45.45.45.2
    "08 00 02 00 2d 2d 2d 02",                          // IFA_LOCAL 45.45.45.2
    "08 00 04 00 2d 2d 2d ff",                          // IFA_BROADCAST 45.45.45.255
    "09 00 03 00 77 61 6e 30 00 00 00 00",              // IFA_LABEL "wan0"
    "08 00 08 00 80 00 00 00",                          // IFA_FLAGS permanent
    "14 00 06 00 ff ff ff ff ff ff ff ff bc 21 03 00 bc 21 03 00"};  // IFA_CACHEINFO

/// RTM_DELADDR, `ip addr del 10.0.0.1 peer 10.0.0.2/32 dev wan0`.
inline const NetlinkBytes peerAddressRemoved{
    "50 00 00 00 15 00 00 00 03 38 00 6b 80 3f 00 00",  // 80 bytes, RTM_DELADDR
    "02 20 80 00 03 00 00 00",                          // AF_INET, /32, permanent, index 3
    "08 00 01 00 0a 00 00 02",                          // IFA_ADDRESS 10.0.0.2, the peer
    "08 00 02 00 0a 00 00 01",                          // IFA_LOCAL 10.0.0.1
    "09 00 03 00 77 61 6e 30 00 00 00 00",              // IFA_LABEL "wan0"
    "08 00 08 00 80 00 00 00",                          // IFA_FLAGS permanent
    "14 00 06 00 ff ff ff ff ff ff ff ff db 21 03 00 db 21 03 00"};  // IFA_CACHEINFO

/// RTM_NEWADDR, `ip addr add 2001:db8:1::1/64 dev wan0 nodad`.
inline const NetlinkBytes ipv6AddressAdded{
    "48 00 00 00 14 00 00 00 00 00 00 00 00 00 00 00",  // 72 bytes, RTM_NEWADDR
    "0a 40 82 00 02 00 00 00",                          // AF_INET6, /64, permanent, index 2
    "14 00 01 00 20 01 0d b8 00 01 00 00 00 00 00 00 00 00 00 01",  // IFA_ADDRESS 2001:db8:1::1
    "14 00 06 00 ff ff ff ff ff ff ff ff c1 63 49 00 c1 63 49 00",  // IFA_CACHEINFO
    "08 00 08 00 82 00 00 00"};                                     // IFA_FLAGS permanent, nodad

/// RTM_NEWADDR, `ip addr add 2001:db8:2::1 peer 2001:db8:2::2/128 dev wan0 nodad`.
inline const NetlinkBytes ipv6PeerAddressAdded{
    "5c 00 00 00 14 00 00 00 00 00 00 00 00 00 00 00",  // 92 bytes, RTM_NEWADDR
    "0a 80 82 00 02 00 00 00",                          // AF_INET6, /128, permanent, index 2
    "14 00 02 00 20 01 0d b8 00 02 00 00 00 00 00 00 00 00 00 01",  // IFA_LOCAL 2001:db8:2::1
    "14 00 01 00 20 01 0d b8 00 02 00 00 00 00 00 00 00 00 00 02",  // IFA_ADDRESS, the peer
    "14 00 06 00 ff ff ff ff ff ff ff ff c1 63 49 00 c1 63 49 00",  // IFA_CACHEINFO
    "08 00 08 00 82 00 00 00"};                                     // IFA_FLAGS permanent, nodad

/// RTM_NEWROUTE, `ip route add default via 45.45.45.1 dev wan0 metric 100`.
inline const NetlinkBytes defaultRoute{
    "3c 00 00 00 18 00 00 06 04 38 00 6b 86 3f 00 00",  // 60 bytes, RTM_NEWROUTE
    "02 00 00 00 fe 03 00 01 00 00 00 00",  // AF_INET, /0, main, RTPROT_BOOT, universe, unicast
    "08 00 0f 00 fe 00 00 00",              // RTA_TABLE main
    "08 00 06 00 64 00 00 00",              // RTA_PRIORITY 100
    "08 00 05 00 2d 2d 2d 01",              // RTA_GATEWAY 45.45.45.1
    "08 00 04 00 03 00 00 00"};             // RTA_OIF 3

/// RTM_NEWROUTE that the kernel made for the address 45.45.45.2/24.
inline const NetlinkBytes networkRoute{
    "3c 00 00 00 18 00 00 06 00 00 00 00 00 00 00 00",  // 60 bytes, RTM_NEWROUTE
    "02 18 00 00 fe 02 fd 01 00 00 00 00",  // AF_INET, /24, main, RTPROT_KERNEL, link, unicast
    "08 00 0f 00 fe 00 00 00",              // RTA_TABLE main
    "08 00 01 00 2d 2d 2d 00",              // RTA_DST 45.45.45.0
    "08 00 07 00 2d 2d 2d 02",              // RTA_PREFSRC 45.45.45.2
    "08 00 04 00 03 00 00 00"};             // RTA_OIF 3

/// RTM_NEWROUTE, `ip route add 99.0.0.0/8 nexthop via 45.45.45.1 dev wan0 weight 1 nexthop via
/// 46.46.46.1 dev wan1 weight 2`.
inline const NetlinkBytes multipathRoute{
    "50 00 00 00 18 00 00 06 04 38 00 6b 91 3f 00 00",  // 80 bytes, RTM_NEWROUTE
    "02 08 00 00 fe 03 00 01 00 00 00 00",  // AF_INET, /8, main, RTPROT_BOOT, universe, unicast
    "08 00 0f 00 fe 00 00 00",              // RTA_TABLE main
    "08 00 01 00 63 00 00 00",              // RTA_DST 99.0.0.0
    "24 00 09 00",                          // RTA_MULTIPATH
    "10 00 00 00 03 00 00 00 08 00 05 00 2d 2d 2d 01",   // index 3, RTA_GATEWAY 45.45.45.1
    "10 00 00 01 05 00 00 00 08 00 05 00 2e 2e 2e 01"};  // index 5, RTA_GATEWAY 46.46.46.1

/// NLMSG_ERROR, a link that is not there was to be taken up.
inline const NetlinkBytes noSuchDevice{
    "34 00 00 00 02 00 00 00 07 00 00 00 24 4d 53 9b",  // 52 bytes, NLMSG_ERROR, sequence 7
    "ed ff ff ff",                                      // -ENODEV
    "20 00 00 00 10 00 05 00 07 00 00 00 00 00 00 00",  // the request's header and body
    "00 00 00 00 0f 27 00 00 00 00 00 00 01 00 00 00"};

/// NLMSG_DONE at the end of a dump.
inline const NetlinkBytes dumpDone{
    "14 00 00 00 03 00 02 00 07 00 00 00 24 4d 53 9b",  // 20 bytes, NLMSG_DONE, multipart
    "00 00 00 00"};

}  // namespace lumen
