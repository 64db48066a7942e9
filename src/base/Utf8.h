#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace lm {

/// A UTF-8 character and its length in bytes.
struct Character {
  char32_t code = 0;
  size_t length = 0;  ///< 0: the text does not start with a valid character
};

/// The first character of `text`, which must not be empty. RFC 3629 section 4: the shortest form
/// only, no surrogates, nothing above U+10FFFF.
inline Character firstCharacter(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
  char32_t code = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return {};
    code = (code << 6) | (byte(i) & 0x3FU);
  }
  constexpr std::array<char32_t, 5> lowest = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < lowest[length] || code > 0x10FFFF || surrogate) return {};
  return {code, length};
}

/// Whether a terminal may interpret the character as a command: C0, DEL and C1 (ISO/IEC 6429).
inline bool isControl(char32_t code) { return code < 0x20 || (code >= 0x7F && code <= 0x9F); }

}  // namespace lm
