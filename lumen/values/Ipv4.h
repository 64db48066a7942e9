#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumen {

/// An IPv4 address. It is ordered, and counted in, by its number; its bytes are those that messages
/// (be32), sockets and netlink carry.
class Ipv4Address {
 public:
  /// 0.0.0.0.
  constexpr Ipv4Address() = default;
  constexpr Ipv4Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
      : number_(uint32_t{a} << 24 | uint32_t{b} << 16 | uint32_t{c} << 8 | d) {}

  /// `bytes` is in network byte order, as in in_addr.
  [[nodiscard]] static constexpr Ipv4Address fromBytes(uint32_t bytes) {
    return fromNumber(std::endian::native == std::endian::big ? bytes : swapped(bytes));
  }
  /// 45.45.45.1 is 0x2d2d2d01.
  [[nodiscard]] static constexpr Ipv4Address fromNumber(uint32_t number) {
    Ipv4Address address;
    address.number_ = number;
    return address;
  }
  /// Reads four decimal numbers with dots between them; none for any other text.
  [[nodiscard]] static std::optional<Ipv4Address> parse(std::string_view text);

  /// In network byte order.
  [[nodiscard]] constexpr uint32_t bytes() const {
    return std::endian::native == std::endian::big ? number_ : swapped(number_);
  }
  [[nodiscard]] constexpr uint32_t number() const { return number_; }
  /// "45.45.45.1".
  [[nodiscard]] std::string text() const;

  [[nodiscard]] constexpr bool isUnspecified() const { return number_ == 0; }

  constexpr auto operator<=>(const Ipv4Address&) const = default;

 private:
  static constexpr uint32_t swapped(uint32_t value) {
    return value >> 24 | (value >> 8 & 0xff00) | (value << 8 & 0xff0000) | value << 24;
  }

  uint32_t number_ = 0;
};

/// An address and the length of the prefix that its network shares with it.
class Ipv4Network {
 public:
  /// 0.0.0.0/0, which holds every address.
  constexpr Ipv4Network() = default;
  /// `prefix` is from 0 to 32. Bits of `address` after the prefix are dropped.
  constexpr Ipv4Network(Ipv4Address address, unsigned prefix)
      : first_(Ipv4Address::fromNumber(address.number() & mask(prefix))), prefix_(prefix) {}

  /// Reads "192.168.88.0/24", or an address alone as a network of one; none for any other text.
  [[nodiscard]] static std::optional<Ipv4Network> parse(std::string_view text);

  [[nodiscard]] constexpr Ipv4Address first() const { return first_; }
  [[nodiscard]] constexpr Ipv4Address last() const {
    return Ipv4Address::fromNumber(first_.number() | ~mask(prefix_));
  }
  [[nodiscard]] constexpr unsigned prefix() const { return prefix_; }
  [[nodiscard]] constexpr bool holds(Ipv4Address address) const {
    return (address.number() & mask(prefix_)) == first_.number();
  }
  /// "192.168.88.0/24".
  [[nodiscard]] std::string text() const;

  constexpr auto operator<=>(const Ipv4Network&) const = default;

 private:
  static constexpr uint32_t mask(unsigned prefix) {
    return prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix);
  }

  Ipv4Address first_;
  unsigned prefix_ = 0;
};

/// A port of an address.
struct Endpoint {
  Ipv4Address address;
  uint16_t port = 0;

  /// "45.45.45.1:8080".
  [[nodiscard]] std::string text() const;

  constexpr auto operator<=>(const Endpoint&) const = default;
};

}  // namespace lumen
