#include "lumen/services/system/netlink/NetlinkReader.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <utility>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumen {
namespace {

constexpr int maxErrno = 4095;  // MAX_ERRNO, linux/err.h

/// Reads the messages of one datagram; keeps the first error.
class Reader {
 public:
  Result<std::vector<NetlinkMessage>> read(std::span<const std::byte> datagram) {
    if (datagram.empty()) fail("empty datagram");
    while (outcome_ && !datagram.empty()) {
      const auto header = readStruct<nlmsghdr>(datagram);
      if (!header || header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > datagram.size()) {
        fail("message length");
        break;
      }
      message(*header, datagram.subspan(sizeof(nlmsghdr), header->nlmsg_len - sizeof(nlmsghdr)));
      const size_t step = netlinkAligned(header->nlmsg_len);
      datagram = step < datagram.size() ? datagram.subspan(step) : std::span<const std::byte>();
    }
    if (!outcome_) return outcome_.failure();
    return std::move(messages_);
  }

 private:
  void message(const nlmsghdr& header, std::span<const std::byte> body) {
    header_ = header;
    switch (header.nlmsg_type) {
      case NLMSG_ERROR:
        return answer(body, "error message too short");
      case NLMSG_DONE:
        return answer(body, "end of dump too short");
      case RTM_NEWLINK:
      case RTM_DELLINK:
        return link(body);
      case RTM_NEWADDR:
      case RTM_DELADDR:
        return address(body);
      case RTM_NEWROUTE:
        return route(body);
      default:
        return;
    }
  }

  void answer(std::span<const std::byte> body, const char* tooShort) {
    const auto error = readStruct<int>(body);
    if (!error) return fail(tooShort);
    if (*error > 0 || *error < -maxErrno) return fail("error number");
    add(NetlinkMessage::Answered{-*error});
  }

  void link(std::span<const std::byte> body) {
    const auto fixed = readStruct<ifinfomsg>(body);
    if (!fixed) return fail("link message too short");
    // A bridge reports its ports with the same message types: a port that leaves the bridge is a
    // deleted link of the family AF_BRIDGE, although the link remains.
    if (fixed->ifi_family != AF_UNSPEC) return;
    if (fixed->ifi_index <= 0) return fail("link without an index");
    const auto index = static_cast<uint32_t>(fixed->ifi_index);
    if (header_.nlmsg_type == RTM_DELLINK) return add(NetlinkMessage::LinkGone{index});

    LinkStatus is;
    is.link.index = index;
    is.link.hardwareType = fixed->ifi_type;
    is.link.loopback = (fixed->ifi_flags & IFF_LOOPBACK) != 0;
    is.link.up = (fixed->ifi_flags & IFF_UP) != 0;
    is.link.running = is.link.up && (fixed->ifi_flags & IFF_RUNNING) != 0;
    const bool whole = attributes(body, sizeof(ifinfomsg), [&](const nlattr& attribute) {
      const auto value = payload(attribute);
      switch (mnl_attr_get_type(&attribute)) {
        case IFLA_IFNAME:
          if (value.empty() || value.size() > IFNAMSIZ || value.back() != std::byte{0}) {
            return fail("link name");
          }
          is.link.name = reinterpret_cast<const char*>(value.data());
          return;
        case IFLA_STATS64: {
          const auto stats = readStruct<StatsHead>(value);
          if (!stats) return fail("link counters too short");
          is.counters = {stats->rxBytes, stats->txBytes, stats->rxPackets, stats->txPackets};
          return;
        }
        default:
          return;
      }
    });
    if (!whole) return fail("link attribute length");
    if (is.link.name.empty()) return fail("link without a name");
    add(NetlinkMessage::LinkIs{std::move(is)});
  }

  void address(std::span<const std::byte> body) {
    const auto fixed = readStruct<ifaddrmsg>(body);
    if (!fixed) return fail("address message too short");
    if (fixed->ifa_family == AF_INET6) return ipv6Address(body, *fixed);
    if (fixed->ifa_family != AF_INET) return;
    if (fixed->ifa_prefixlen > 32) return fail("address prefix length");
    std::optional<Ipv4Address> local;
    std::optional<Ipv4Address> network;
    std::optional<Ipv4Address> broadcast;
    const bool whole = attributes(body, sizeof(ifaddrmsg), [&](const nlattr& attribute) {
      const uint16_t type = mnl_attr_get_type(&attribute);
      if (type != IFA_LOCAL && type != IFA_ADDRESS && type != IFA_BROADCAST) return;
      const auto value = readStruct<uint32_t>(payload(attribute));
      if (!value) return fail("address too short");
      const Ipv4Address told = Ipv4Address::fromBytes(*value);
      if (type == IFA_LOCAL) local = told;
      if (type == IFA_ADDRESS) network = told;
      if (type == IFA_BROADCAST && !told.isUnspecified()) broadcast = told;
    });
    if (!whole) return fail("address attribute length");
    if (!local) local = network;
    if (!network) network = local;
    if (!local) return fail("address without an address");
    const LinkAddress is{*local, Ipv4Network(*network, fixed->ifa_prefixlen), broadcast};
    if (header_.nlmsg_type == RTM_NEWADDR) {
      add(NetlinkMessage::AddressIs{fixed->ifa_index, is});
    } else {
      add(NetlinkMessage::AddressGone{fixed->ifa_index, is});
    }
  }

  void ipv6Address(std::span<const std::byte> body, const ifaddrmsg& fixed) {
    if (fixed.ifa_prefixlen > 128) return fail("address prefix length");
    std::optional<Ipv6Address> local;
    std::optional<Ipv6Address> network;
    const bool whole = attributes(body, sizeof(ifaddrmsg), [&](const nlattr& attribute) {
      const uint16_t type = mnl_attr_get_type(&attribute);
      if (type != IFA_LOCAL && type != IFA_ADDRESS) return;
      const auto value = readStruct<Ipv6Address::Bytes>(payload(attribute));
      if (!value) return fail("address too short");
      (type == IFA_LOCAL ? local : network) = Ipv6Address(*value);
    });
    if (!whole) return fail("address attribute length");
    if (!local) local = network;
    if (!network) network = local;
    if (!local) return fail("address without an address");
    const Ipv6LinkAddress is{*local, Ipv6Network(*network, fixed.ifa_prefixlen)};
    if (header_.nlmsg_type == RTM_NEWADDR) {
      add(NetlinkMessage::Ipv6AddressIs{fixed.ifa_index, is});
    } else {
      add(NetlinkMessage::Ipv6AddressGone{fixed.ifa_index, is});
    }
  }

  void route(std::span<const std::byte> body) {
    const auto fixed = readStruct<rtmsg>(body);
    if (!fixed) return fail("route message too short");
    if (fixed->rtm_family != AF_INET && fixed->rtm_family != AF_INET6) return;
    NetlinkMessage::RouteIs is;
    is.family = fixed->rtm_family;
    append(is.content, body.first(sizeof(rtmsg)));
    uint32_t table = fixed->rtm_table;
    const bool whole = attributes(body, sizeof(rtmsg), [&](const nlattr& attribute) {
      const auto value = payload(attribute);
      // It changes with each look at the same route.
      if (mnl_attr_get_type(&attribute) != RTA_CACHEINFO) append(is.content, attribute);
      switch (mnl_attr_get_type(&attribute)) {
        case RTA_TABLE:
          table = number(value);
          return;
        case RTA_OIF:
          is.links.push_back(number(value));
          return;
        case RTA_GATEWAY:
        case RTA_VIA:
          is.gateway = true;
          return;
        case RTA_MULTIPATH:
          return nextHops(value, is);
        default:
          return;
      }
    });
    if (!whole) return fail("route attribute length");
    is.kernelMade = table == RT_TABLE_LOCAL || (fixed->rtm_flags & RTM_F_CLONED) != 0 ||
                    fixed->rtm_protocol == RTPROT_KERNEL ||
                    fixed->rtm_protocol == RTPROT_REDIRECT || fixed->rtm_protocol == RTPROT_RA;
    add(std::move(is));
  }

  static void append(std::string& content, std::span<const std::byte> bytes) {
    content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    content.append(netlinkAligned(bytes.size()) - bytes.size(), '\0');
  }
  static void append(std::string& content, const nlattr& attribute) {
    append(content, {reinterpret_cast<const std::byte*>(&attribute), attribute.nla_len});
  }

  void nextHops(std::span<const std::byte> bytes, NetlinkMessage::RouteIs& is) {
    while (!bytes.empty()) {
      const auto hop = readStruct<rtnexthop>(bytes);
      if (!hop || hop->rtnh_len < sizeof(rtnexthop) || hop->rtnh_len > bytes.size()) {
        return fail("next hop length");
      }
      is.links.push_back(static_cast<uint32_t>(hop->rtnh_ifindex));
      is.gateway = is.gateway || hop->rtnh_len > sizeof(rtnexthop);
      const size_t step = netlinkAligned(hop->rtnh_len);
      bytes = step < bytes.size() ? bytes.subspan(step) : std::span<const std::byte>();
    }
  }

  template <typename Visit>
  static bool attributes(std::span<const std::byte> body, size_t fixed, Visit visit) {
    const size_t start = netlinkAligned(fixed);
    return start >= body.size() || visitAttributes(body.subspan(start), visit);
  }

  uint32_t number(std::span<const std::byte> bytes) {
    const auto value = readStruct<uint32_t>(bytes);
    if (!value) fail("number too short");
    return value.value_or(0);
  }

  template <typename What>
  void add(What what) {
    messages_.push_back({header_.nlmsg_seq, header_.nlmsg_pid,
                         (header_.nlmsg_flags & NLM_F_DUMP_INTR) != 0, std::move(what)});
  }

  void fail(const char* reason) {
    if (outcome_) outcome_ = Failure{reason};
  }

  /// The beginning of a struct rtnl_link_stats64, which newer kernels lengthen.
  struct StatsHead {
    uint64_t rxPackets;
    uint64_t txPackets;
    uint64_t rxBytes;
    uint64_t txBytes;
  };

  nlmsghdr header_{};
  std::vector<NetlinkMessage> messages_;
  Result<void> outcome_;
};

}  // namespace

Result<std::vector<NetlinkMessage>> readNetlink(std::span<const std::byte> datagram) {
  return Reader().read(datagram);
}

}  // namespace lumen
