// Datagrams of rtnetlink: what is taken obeys its limits, and a route can be put back.

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "fuzz/Fuzz.h"
#include "lumen/services/system/netlink/NetlinkReader.h"
#include "lumen/services/system/netlink/NetlinkRoute.h"

namespace {

using fuzz::require;
using lumen::NetlinkMessage;

constexpr uint32_t newLink = 0x4d;  // where routes are put back

class Checks {
 public:
  explicit Checks(size_t datagramSize) : datagramSize_(datagramSize) {}

  void operator()(const NetlinkMessage::LinkIs& is) const {
    const lumen::Link& link = is.status.link;
    require(link.index > 0 && link.index <= INT32_MAX, "a link has an index");
    require(!link.name.empty() && link.name.size() < IFNAMSIZ, "a link has a name");
    require(link.up || !link.running, "a link that is down is not running");
  }
  void operator()(const NetlinkMessage::LinkGone& gone) const {
    require(gone.index > 0 && gone.index <= INT32_MAX, "a link has an index");
  }
  void operator()(const NetlinkMessage::AddressIs& is) const { check(is.address); }
  void operator()(const NetlinkMessage::AddressGone& gone) const { check(gone.address); }
  void operator()(const NetlinkMessage::Ipv6AddressIs& is) const { check(is.address); }
  void operator()(const NetlinkMessage::Ipv6AddressGone& gone) const { check(gone.address); }
  void operator()(const NetlinkMessage::Answered& answer) const {
    require(answer.error >= 0 && answer.error <= 4095, "an answer is an errno");
  }
  void operator()(const NetlinkMessage::RouteIs& is) const {
    require(is.family == AF_INET || is.family == AF_INET6, "a route is of IPv4 or IPv6");
    require(is.content.size() >= sizeof(rtmsg) && is.content.size() < datagramSize_,
            "a route is part of its datagram");
    for (const uint32_t link : is.links) checkPutBack(is, link);
    if (is.links.empty()) checkPutBack(is, newLink - 1);
  }

 private:
  static void check(const lumen::LinkAddress& address) {
    require(address.network.prefix() <= 32, "a prefix has at most 32 bits");
  }

  static void check(const lumen::Ipv6LinkAddress& address) {
    require(address.network.prefix() <= 128, "a prefix of IPv6 has at most 128 bits");
  }

  /// Puts the route back by the new link where it left by `link`.
  static void checkPutBack(const NetlinkMessage::RouteIs& was, uint32_t link) {
    const auto request = lumen::makeRouteRequest({link, was.gateway, was.content}, newLink);
    const auto messages = lumen::readNetlink(request);
    require(messages && messages->size() == 1, "a request is one message");
    require(std::holds_alternative<NetlinkMessage::RouteIs>(messages->front().what),
            "a request for a route is a route");
    const auto& is = std::get<NetlinkMessage::RouteIs>(messages->front().what);
    require(is.family == was.family && is.gateway == was.gateway, "a route is put back as it was");
    std::vector<uint32_t> links = was.links;
    std::ranges::replace(links, link, newLink);
    require(is.links == links, "a route is put back by the new link");
    const nlmsghdr* header = reinterpret_cast<const nlmsghdr*>(request.data());
    require(header->nlmsg_type == RTM_NEWROUTE && (header->nlmsg_flags & NLM_F_EXCL) != 0,
            "a route that exists is left alone");
  }

  size_t datagramSize_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy that is aligned, and ends where the datagram does.
  const auto* first = reinterpret_cast<const std::byte*>(data);
  const std::vector<std::byte> datagram(first, first + size);
  const auto messages = lumen::readNetlink(datagram);
  if (!messages) {
    require(!messages.why().empty(), "a refusal has a reason");
    return 0;
  }
  require(messages->size() <= size / sizeof(nlmsghdr), "messages are not made up");
  for (const NetlinkMessage& m : *messages) std::visit(Checks(size), m.what);
  return 0;
}
