#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Conversions between texts and numbers.

/// What strtoul of base 10 gives where unsigned long has 32 bits, on every machine: leading white
/// space and one sign are accepted, anything behind the digits is ignored, no digits give 0, a
/// magnitude above 4294967295 gives 4294967295, and a minus sign negates modulo 2^32.
[[nodiscard]] uint32_t strtouint(std::string_view text);
/// The same for a text that is wholly used up by the conversion, as an empty one is; else none.
[[nodiscard]] std::optional<uint32_t> parseUint(std::string_view text);
[[nodiscard]] std::string uinttostr(unsigned int number);
[[nodiscard]] std::string inttostr(int number);

/// ASCII letters in upper case, every other byte as it is, whatever the locale.
[[nodiscard]] std::string toUpper(std::string_view text);
