#include "pcp/server/Sides.h"

namespace pcp {

Sides sidesOf(const std::vector<lm::interfaces::Record>& interfaces,
              const std::vector<lm::addresses::Record>& addresses,
              std::optional<lumen::Ipv4Address> current) {
  Sides sides;
  std::optional<uint32_t> first;  // id of the external address that came first
  bool stays = false;
  for (const lm::interfaces::Record& interface : interfaces) {
    const bool internal = interface.role == lm::interfaces::roleInternal;
    const bool external = interface.role == lm::interfaces::roleExternal;
    if (internal && interface.running && interface.index != 0) {
      sides.ipv6.push_back({.link = {interface.name, interface.index}});
    }
    Place place = {.link = {interface.name, interface.index}};
    for (const lm::addresses::Record& record : addresses) {
      if (record.interface != interface.id || record.disabled) continue;
      const lumen::Ipv4Address address = lumen::Ipv4Address::fromBytes(record.address);
      if (internal) place.addresses.push_back(address);
      if (!external) continue;
      stays = stays || address == current;
      if (first && *first < record.id) continue;
      first = record.id;
      sides.external = address;
    }
    if (!place.addresses.empty() && place.link.index != 0) sides.ipv4.push_back(std::move(place));
  }
  if (stays) sides.external = current;
  return sides;
}

}  // namespace pcp
