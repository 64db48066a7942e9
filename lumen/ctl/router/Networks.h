#pragma once

#include <arpa/inet.h>

#include <cstdint>

/// What kind of network an IPv4 address belongs to. Addresses are in network byte order.
namespace lumenctl {

/// Whether the address is in the network `a`.`b`.0.0/`prefix`, `prefix` at least 1.
[[nodiscard]] inline bool isWithin(uint32_t address, uint32_t a, uint32_t b, uint32_t prefix) {
  return (ntohl(address) ^ (a << 24 | b << 16)) >> (32 - prefix) == 0;
}

/// RFC 1918, section 3.
[[nodiscard]] inline bool isPrivate(uint32_t address) {
  return isWithin(address, 10, 0, 8) || isWithin(address, 172, 16, 12) ||
         isWithin(address, 192, 168, 16);
}

/// RFC 6598: between a provider's customers and its own address translation.
[[nodiscard]] inline bool isCarrierGrade(uint32_t address) {
  return isWithin(address, 100, 64, 10);
}

/// RFC 3927: what a host gives itself when no server gives it an address.
[[nodiscard]] inline bool isLinkLocal(uint32_t address) { return isWithin(address, 169, 254, 16); }

}  // namespace lumenctl
