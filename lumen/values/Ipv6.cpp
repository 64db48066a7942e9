#include "lumen/values/Ipv6.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace lumen {

namespace {

constexpr unsigned longestPrefix = 128;

Ipv6Address::Bytes cut(Ipv6Address::Bytes bytes, unsigned prefix) {
  for (unsigned at = 0; at < bytes.size(); ++at) {
    const unsigned kept = std::clamp(prefix, at * 8, at * 8 + 8) - at * 8;
    bytes[at] = static_cast<uint8_t>(bytes[at] & (0xff00 >> kept));
  }
  return bytes;
}

}  // namespace

std::optional<Ipv6Address> Ipv6Address::parse(std::string_view text) {
  Bytes bytes;
  if (inet_pton(AF_INET6, std::string(text).c_str(), bytes.data()) != 1 ||
      text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  return Ipv6Address(bytes);
}

std::string Ipv6Address::text() const {
  std::array<char, INET6_ADDRSTRLEN> text = {};
  inet_ntop(AF_INET6, bytes_.data(), text.data(), text.size());
  return text.data();
}

Ipv6Network::Ipv6Network(const Ipv6Address& address, unsigned prefix)
    : first_(cut(address.bytes(), prefix)), prefix_(prefix) {}

std::optional<Ipv6Network> Ipv6Network::parse(std::string_view text) {
  const size_t slash = text.find('/');
  const auto address = Ipv6Address::parse(text.substr(0, slash));
  if (!address) return std::nullopt;
  if (slash == std::string_view::npos) return Ipv6Network(*address, longestPrefix);
  const std::string_view number = text.substr(slash + 1);
  unsigned prefix = 0;
  const auto read = std::from_chars(number.data(), number.data() + number.size(), prefix);
  if (read.ec != std::errc() || read.ptr != number.data() + number.size()) return std::nullopt;
  if (prefix > longestPrefix) return std::nullopt;
  return Ipv6Network(*address, prefix);
}

Ipv6Address Ipv6Network::last() const {
  Ipv6Address::Bytes bytes;
  bytes.fill(0xff);
  const Ipv6Address::Bytes mask = cut(bytes, prefix_);
  for (size_t at = 0; at < bytes.size(); ++at) {
    bytes[at] = static_cast<uint8_t>(first_.bytes()[at] | ~mask[at]);
  }
  return Ipv6Address(bytes);
}

std::string Ipv6Network::text() const { return first_.text() + "/" + std::to_string(prefix_); }

}  // namespace lumen
