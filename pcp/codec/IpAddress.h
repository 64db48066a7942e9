#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lumen/values/Ipv4.h"
#include "lumen/values/Ipv6.h"

namespace pcp {

/// How much longer the prefix of an IPv4 network is that is mapped into IPv6.
inline constexpr uint8_t mappedPrefix = 96;

/// An address as PCP carries it: an IPv6 address, or an IPv4 address mapped into IPv6 (RFC 6887
/// section 5).
struct IpAddress {
  std::array<uint8_t, 16> bytes = {};

  /// ::ffff:192.0.2.1 for 192.0.2.1.
  [[nodiscard]] static constexpr IpAddress mapped(lumen::Ipv4Address address) {
    const uint32_t n = address.number();
    return {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, static_cast<uint8_t>(n >> 24),
             static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)}};
  }

  /// Reads an address of IPv4 or IPv6; none for any other text.
  [[nodiscard]] static std::optional<IpAddress> parse(std::string_view text) {
    if (const auto ipv4 = lumen::Ipv4Address::parse(text)) return mapped(*ipv4);
    if (const auto ipv6 = lumen::Ipv6Address::parse(text)) return IpAddress{ipv6->bytes()};
    return std::nullopt;
  }
  [[nodiscard]] std::string text() const {
    const auto mapped = ipv4();
    return mapped ? mapped->text() : lumen::Ipv6Address(bytes).text();
  }

  /// None for an address that is not a mapped one.
  [[nodiscard]] std::optional<lumen::Ipv4Address> ipv4() const {
    const lumen::Ipv4Address address(bytes[12], bytes[13], bytes[14], bytes[15]);
    if (mapped(address) != *this) return std::nullopt;
    return address;
  }

  /// Neither an address of IPv6 nor one of IPv4: no wish (RFC 6887 section 11.1).
  [[nodiscard]] bool isUnspecified() const {
    return *this == IpAddress{} || *this == mapped(lumen::Ipv4Address());
  }

  auto operator<=>(const IpAddress&) const = default;
};

}  // namespace pcp
