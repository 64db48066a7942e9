#include "lumen/services/system/netlink/NetlinkRoute.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <span>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumen {
namespace {

/// Replaces the old link by the new one in every next hop and clears the state flags. False when
/// the lengths do not fit.
bool moveNextHops(std::vector<std::byte>& hops, uint32_t from, uint32_t to) {
  for (size_t at = 0; at < hops.size();) {
    auto hop = readStruct<rtnexthop>(std::span<const std::byte>(hops).subspan(at));
    if (!hop || hop->rtnh_len < sizeof(rtnexthop) || hop->rtnh_len > hops.size() - at) return false;
    hop->rtnh_flags &= RTNH_F_ONLINK;
    if (static_cast<uint32_t>(hop->rtnh_ifindex) == from) hop->rtnh_ifindex = static_cast<int>(to);
    std::memcpy(&hops[at], &*hop, sizeof *hop);
    at += netlinkAligned(hop->rtnh_len);
  }
  return true;
}

}  // namespace

std::vector<std::byte> makeRouteRequest(const Route& route, uint32_t index) {
  // A copy, since the content of a string need not be aligned.
  const auto* first = reinterpret_cast<const std::byte*>(route.content.data());
  const std::vector<std::byte> content(first, first + route.content.size());
  auto fixed = readStruct<rtmsg>(content);
  if (!fixed || (fixed->rtm_family != AF_INET && fixed->rtm_family != AF_INET6)) return {};
  fixed->rtm_flags &= RTNH_F_ONLINK;

  std::vector<std::byte> request(sizeof(nlmsghdr) + netlinkAligned(content.size()));
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = RTM_NEWROUTE;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
  std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)), &*fixed, sizeof(rtmsg));

  bool fits = true;
  const auto attributes = std::span(content).subspan(sizeof(rtmsg));
  const bool whole = visitAttributes(attributes, [&](const nlattr& attribute) {
    const uint16_t type = attribute.nla_type;
    const auto value = payload(attribute);
    switch (mnl_attr_get_type(&attribute)) {
      case RTA_CACHEINFO:
      case RTA_NH_ID:
        return;
      case RTA_OIF: {
        const auto old = readStruct<uint32_t>(value);
        fits = fits && old;
        mnl_attr_put_u32(header, type, old == route.link ? index : old.value_or(0));
        return;
      }
      case RTA_MULTIPATH: {
        std::vector<std::byte> hops(value.begin(), value.end());
        fits = fits && moveNextHops(hops, route.link, index);
        mnl_attr_put(header, type, hops.size(), hops.data());
        return;
      }
      default:
        mnl_attr_put(header, type, value.size(), value.data());
        return;
    }
  });
  if (!whole || !fits) return {};
  request.resize(header->nlmsg_len);
  return request;
}

}  // namespace lumen
