#include "lumen/web/HostCheck.h"

#include <algorithm>

namespace lumen::web {

namespace {

constexpr size_t longestPort = 5;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool isHostName(std::string_view name) {
  const auto allowed = [](char c) {
    return isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'z') || c == '-' || c == '.';
  };
  return !name.empty() && name.size() <= longestHostName && name.front() != '-' &&
         name.front() != '.' && std::all_of(name.begin(), name.end(), allowed);
}

bool isOwnHost(std::string_view header, const std::set<Ipv4Address>& addresses,
               const std::set<std::string, std::less<>>& names) {
  const size_t colon = header.find(':');
  if (colon != std::string_view::npos) {
    const std::string_view port = header.substr(colon + 1);
    if (port.size() > longestPort || !std::all_of(port.begin(), port.end(), isDigit)) return false;
    header = header.substr(0, colon);
  }
  if (const auto address = Ipv4Address::parse(header)) return addresses.contains(*address);
  if (!isHostName(header)) return false;
  std::string name(header);
  if (name.ends_with('.')) name.pop_back();
  std::transform(name.begin(), name.end(), name.begin(), lower);
  return names.contains(name);
}

}  // namespace lumen::web
