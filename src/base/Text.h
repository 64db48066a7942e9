#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Conversions between texts and numbers.

/// What strtoul of base 10 returns where unsigned long has 32 bits, on every machine: leading white
/// space and one sign are accepted, anything after the digits is ignored, no digits give 0, a
/// magnitude above 4294967295 gives 4294967295, and a minus sign negates modulo 2^32.
[[nodiscard]] uint32_t strtouint(std::string_view text);
/// The same when the conversion uses all of `text`, as it does for an empty one; otherwise none.
[[nodiscard]] std::optional<uint32_t> parseUint(std::string_view text);
[[nodiscard]] std::string uinttostr(unsigned int number);
[[nodiscard]] std::string inttostr(int number);

/// Converts ASCII letters to upper case and keeps every other byte, in any locale.
[[nodiscard]] std::string toUpper(std::string_view text);
