#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pcp::test {

/// Bytes from hexadecimal text; blanks are for the reader.
inline std::vector<uint8_t> bytes(std::string_view hex) {
  const auto digit = [](char c) { return static_cast<uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10); };
  std::vector<uint8_t> result;
  bool half = false;
  for (char c : hex) {
    if (c == ' ') continue;
    if (half) {
      result.back() = static_cast<uint8_t>(result.back() << 4 | digit(c));
    } else {
      result.push_back(digit(c));
    }
    half = !half;
  }
  return result;
}

/// In groups of four bytes.
inline std::string hex(std::span<const uint8_t> data) {
  std::string text;
  for (size_t i = 0; i < data.size(); ++i) {
    if (i % 4 == 0 && i > 0) text += ' ';
    text += "0123456789abcdef"[data[i] >> 4];
    text += "0123456789abcdef"[data[i] & 15];
  }
  return text;
}

}  // namespace pcp::test
