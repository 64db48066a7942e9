#include "lumen/services/system/netlink/Ipv6Forwarding.h"

#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <optional>

#include "lumen/services/system/netlink/NetlinkAttributes.h"
#include "lumen/services/system/netlink/NetlinkSocket.h"

namespace lumen {

namespace {

/// Whether `datagram` says that forwarding is on; none: it says nothing about it.
std::optional<bool> readSetting(std::span<const std::byte> datagram) {
  const auto header = readStruct<nlmsghdr>(datagram);
  constexpr size_t begin = sizeof(nlmsghdr) + netlinkAligned(sizeof(netconfmsg));
  if (!header || header->nlmsg_type != RTM_NEWNETCONF || header->nlmsg_len > datagram.size() ||
      header->nlmsg_len < begin) {
    return std::nullopt;
  }
  std::optional<bool> setting;
  (void)visitAttributes(datagram.subspan(begin, header->nlmsg_len - begin),
                        [&](const nlattr& attribute) {
                          if (mnl_attr_get_type(&attribute) != NETCONFA_FORWARDING) return;
                          if (const auto value = readStruct<int>(payload(attribute))) {
                            setting = *value != 0;
                          }
                        });
  return setting;
}

}  // namespace

bool NetlinkIpv6Forwarding::isOn() {
  NetlinkSocket socket;
  if (!socket.open(0, 0)) return false;
  alignas(nlmsghdr) std::array<std::byte, 64> buffer = {};
  nlmsghdr* const request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETNETCONF;
  request->nlmsg_flags = NLM_F_REQUEST;
  auto* const body =
      static_cast<netconfmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(netconfmsg)));
  body->ncm_family = AF_INET6;
  mnl_attr_put_u32(request, NETCONFA_IFINDEX, static_cast<uint32_t>(NETCONFA_IFINDEX_ALL));
  std::span<const std::byte> answer;
  const bool answered =
      socket.send(*request) && socket.receive(true, answer) == NetlinkSocket::Received::datagram;
  return answered && readSetting(answer).value_or(false);
}

}  // namespace lumen
