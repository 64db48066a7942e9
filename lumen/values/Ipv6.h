#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumen {

/// An IPv6 address, as its 16 bytes in network order.
class Ipv6Address {
 public:
  using Bytes = std::array<uint8_t, 16>;

  /// ::
  constexpr Ipv6Address() = default;
  constexpr explicit Ipv6Address(const Bytes& bytes) : bytes_(bytes) {}

  /// Reads any spelling without a zone; none for any other text.
  [[nodiscard]] static std::optional<Ipv6Address> parse(std::string_view text);

  [[nodiscard]] constexpr const Bytes& bytes() const { return bytes_; }
  /// The short spelling: "2001:db8::1".
  [[nodiscard]] std::string text() const;

  /// fe80::/10, which no router forwards.
  [[nodiscard]] constexpr bool isLinkLocal() const {
    return bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80;
  }
  /// Of one host that routers forward to: 2000::/3, or of a private network, fc00::/7.
  [[nodiscard]] constexpr bool isRoutable() const {
    return (bytes_[0] & 0xe0) == 0x20 || (bytes_[0] & 0xfe) == 0xfc;
  }

  constexpr auto operator<=>(const Ipv6Address&) const = default;

 private:
  Bytes bytes_ = {};
};

/// An address and the length of the prefix that its network shares with it.
class Ipv6Network {
 public:
  /// ::/0, which holds every address.
  Ipv6Network() = default;
  /// `prefix` is from 0 to 128. Bits of `address` after the prefix are dropped.
  Ipv6Network(const Ipv6Address& address, unsigned prefix);

  /// Reads "2001:db8::/64", or an address alone as a network of one; none for any other text.
  [[nodiscard]] static std::optional<Ipv6Network> parse(std::string_view text);

  [[nodiscard]] const Ipv6Address& first() const { return first_; }
  [[nodiscard]] Ipv6Address last() const;
  [[nodiscard]] unsigned prefix() const { return prefix_; }
  [[nodiscard]] bool holds(const Ipv6Address& address) const {
    return Ipv6Network(address, prefix_).first_ == first_;
  }
  /// "2001:db8::/64".
  [[nodiscard]] std::string text() const;

  auto operator<=>(const Ipv6Network&) const = default;

 private:
  Ipv6Address first_;
  unsigned prefix_ = 0;
};

}  // namespace lumen
