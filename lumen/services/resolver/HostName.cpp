#include "lumen/services/resolver/HostName.h"

#include <algorithm>

namespace lumen {

namespace {

// RFC 1035, section 2.3.4, for names in text form.
constexpr size_t maxName = 253;
constexpr size_t maxLabel = 63;

// Unlike those of <cctype>, independent of the locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }

char toLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isAllowed(char c) { return (c >= 'a' && c <= 'z') || isDigit(c) || c == '-' || c == '_'; }

bool isLabel(std::string_view text) {
  return !text.empty() && text.size() <= maxLabel && text.front() != '-' && text.back() != '-' &&
         std::ranges::all_of(text, isAllowed);
}

}  // namespace

std::optional<std::string> toHostName(std::string_view text) {
  std::string name(text.substr(0, maxName + 2));
  std::ranges::transform(name, name.begin(), toLower);
  std::string_view rest = name;
  if (rest.ends_with('.')) rest.remove_suffix(1);
  if (rest.size() > maxName) return std::nullopt;
  while (true) {
    const size_t dot = rest.find('.');
    const std::string_view label = rest.substr(0, dot);
    if (!isLabel(label)) return std::nullopt;
    if (dot != std::string_view::npos) {
      rest.remove_prefix(dot + 1);
    } else if (std::ranges::all_of(label, isDigit)) {
      return std::nullopt;
    } else {
      return name;
    }
  }
}

}  // namespace lumen
