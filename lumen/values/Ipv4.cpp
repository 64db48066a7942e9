#include "lumen/values/Ipv4.h"

#include <charconv>

namespace lumen {
namespace {

/// Reads a decimal number up to `highest`, without sign or leading zeros, and drops it from `text`.
std::optional<unsigned> takeNumber(std::string_view& text, unsigned highest) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto length = static_cast<size_t>(end - text.data());
  if (error != std::errc() || number > highest || (length > 1 && text[0] == '0')) {
    return std::nullopt;
  }
  text.remove_prefix(length);
  return number;
}

bool take(std::string_view& text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<Ipv4Address> takeAddress(std::string_view& text) {
  uint32_t number = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && !take(text, '.')) return std::nullopt;
    const std::optional<unsigned> byte = takeNumber(text, 255);
    if (!byte) return std::nullopt;
    number = number << 8 | *byte;
  }
  return Ipv4Address::fromNumber(number);
}

}  // namespace

std::optional<Ipv4Address> Ipv4Address::parse(std::string_view text) {
  const std::optional<Ipv4Address> address = takeAddress(text);
  return text.empty() ? address : std::nullopt;
}

std::string Ipv4Address::text() const {
  std::string text;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    if (!text.empty()) text += '.';
    text += std::to_string(number_ >> shift & 0xff);
  }
  return text;
}

std::optional<Ipv4Network> Ipv4Network::parse(std::string_view text) {
  const std::optional<Ipv4Address> address = takeAddress(text);
  if (!address) return std::nullopt;
  if (text.empty()) return Ipv4Network(*address, 32);
  if (!take(text, '/')) return std::nullopt;
  const std::optional<unsigned> prefix = takeNumber(text, 32);
  if (!prefix || !text.empty()) return std::nullopt;
  return Ipv4Network(*address, *prefix);
}

std::string Ipv4Network::text() const { return first_.text() + '/' + std::to_string(prefix_); }

std::string Endpoint::text() const { return address.text() + ':' + std::to_string(port); }

}  // namespace lumen
