#pragma once

#include "lumen/values/Ipv4.h"

/// What kind of network an IPv4 address belongs to.
namespace lumenctl {

/// RFC 1918, section 3.
[[nodiscard]] constexpr bool isPrivate(lumen::Ipv4Address address) {
  return lumen::Ipv4Network({10, 0, 0, 0}, 8).holds(address) ||
         lumen::Ipv4Network({172, 16, 0, 0}, 12).holds(address) ||
         lumen::Ipv4Network({192, 168, 0, 0}, 16).holds(address);
}

/// RFC 6598: between a provider's customers and its own address translation.
[[nodiscard]] constexpr bool isCarrierGrade(lumen::Ipv4Address address) {
  return lumen::Ipv4Network({100, 64, 0, 0}, 10).holds(address);
}

/// RFC 3927: what a host gives itself when no server gives it an address.
[[nodiscard]] constexpr bool isLinkLocal(lumen::Ipv4Address address) {
  return lumen::Ipv4Network({169, 254, 0, 0}, 16).holds(address);
}

}  // namespace lumenctl
