#pragma once

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace lumen {

/// Attributes by their type; null: absent.
template <size_t count>
using NetlinkAttributes = std::array<const nlattr*, count>;

/// Those in the `length` bytes at `first`. One that does not fit ends them.
template <size_t count>
NetlinkAttributes<count> attributesIn(const void* first, size_t length) {
  NetlinkAttributes<count> found = {};
  int left = static_cast<int>(length);
  for (const auto* one = static_cast<const nlattr*>(first); mnl_attr_ok(one, left);
       one = mnl_attr_next(one)) {
    const uint16_t type = mnl_attr_get_type(one);
    if (type < count) found[type] = one;
    left -= static_cast<int>(MNL_ALIGN(one->nla_len));
  }
  return found;
}

/// Those in another one; none in null.
template <size_t count>
NetlinkAttributes<count> attributesIn(const nlattr* nest) {
  if (nest == nullptr) return {};
  return attributesIn<count>(mnl_attr_get_payload(nest), mnl_attr_get_payload_len(nest));
}

/// Those of a message of nfnetlink; none in one that is too short.
template <size_t count>
NetlinkAttributes<count> attributesIn(const nlmsghdr* message) {
  const size_t length = mnl_nlmsg_get_payload_len(message);
  if (length < sizeof(nfgenmsg)) return {};
  return attributesIn<count>(mnl_nlmsg_get_payload_offset(message, sizeof(nfgenmsg)),
                             length - sizeof(nfgenmsg));
}

}  // namespace lumen
