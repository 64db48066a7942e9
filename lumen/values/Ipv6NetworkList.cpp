#include "lumen/values/Ipv6NetworkList.h"

#include <algorithm>
#include <utility>

#include "lumen/values/Networks.h"

namespace lumen {

Ipv6NetworkList tidyNetworks(Ipv6NetworkList networks) { return withoutHeld(std::move(networks)); }

std::string networksText(const Ipv6NetworkList& networks) { return joined(networks); }

std::optional<Ipv6NetworkList> parseIpv6Networks(std::string_view text) {
  Ipv6NetworkList networks;
  while (!text.empty()) {
    const size_t end = std::min(text.find(' '), text.size());
    const auto network = Ipv6Network::parse(text.substr(0, end));
    if (!network || end + 1 == text.size()) return std::nullopt;
    networks.push_back(*network);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return tidyNetworks(std::move(networks));
}

}  // namespace lumen
