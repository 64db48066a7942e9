#include "http/Text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <limits>

uint32_t strtoip(const std::string& text) { return inet_addr(text.c_str()); }

std::string iptostr(uint32_t address) { return inet_ntoa(in_addr{address}); }

uint32_t iptonumber(uint32_t address) { return ntohl(address); }

uint32_t strtouint(std::string_view text) {
  constexpr uint32_t largest = std::numeric_limits<uint32_t>::max();
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  uint32_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    const auto digit = static_cast<uint32_t>(c - '0');
    if (number > (largest - digit) / 10) return largest;
    number = number * 10 + digit;
  }
  return negative ? 0 - number : number;
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
