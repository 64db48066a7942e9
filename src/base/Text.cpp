#include "base/Text.h"

#include <algorithm>
#include <limits>

namespace {

/// Converts the number at the front of `text` and removes it from there. Without digits it returns
/// 0 and removes nothing.
uint32_t takeUint(std::string_view& text) {
  constexpr uint32_t largest = std::numeric_limits<uint32_t>::max();
  std::string_view rest = text;
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t\n\v\f\r"), rest.size()));
  const bool negative = rest.starts_with('-');
  if (negative || rest.starts_with('+')) rest.remove_prefix(1);
  const std::string_view digits = rest.substr(0, rest.find_first_not_of("0123456789"));
  if (digits.empty()) return 0;

  text = rest.substr(digits.size());
  uint32_t number = 0;
  for (const char c : digits) {
    const auto digit = static_cast<uint32_t>(c - '0');
    if (number > (largest - digit) / 10) return largest;
    number = number * 10 + digit;
  }
  return negative ? 0 - number : number;
}

}  // namespace

uint32_t strtouint(std::string_view text) { return takeUint(text); }

std::optional<uint32_t> parseUint(std::string_view text) {
  const uint32_t number = takeUint(text);
  return text.empty() ? std::optional(number) : std::nullopt;
}

std::string uinttostr(unsigned int number) { return std::to_string(number); }

std::string inttostr(int number) { return std::to_string(number); }

std::string toUpper(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return upper;
}
