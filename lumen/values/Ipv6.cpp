#include "lumen/values/Ipv6.h"

#include <arpa/inet.h>

#include <algorithm>

namespace lumen {

namespace {

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

std::string Ipv6Network::text() const { return first_.text() + "/" + std::to_string(prefix_); }

}  // namespace lumen
