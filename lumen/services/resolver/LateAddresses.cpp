#include "lumen/services/resolver/LateAddresses.h"

#include <algorithm>

namespace lumen {

void LateAddresses::remember(const std::string& name, Ipv4Address address) {
  const lm::Clock::Time now = clock_.now();
  std::erase_if(addresses_, [&](const Entry& e) { return e.end <= now || e.name == name; });
  if (addresses_.size() >= capacity) addresses_.pop_front();
  addresses_.push_back({name, address, now + life});
}

std::optional<Ipv4Address> LateAddresses::find(const std::string& name) const {
  const lm::Clock::Time now = clock_.now();
  const auto found = std::ranges::find_if(
      addresses_, [&](const Entry& e) { return e.end > now && e.name == name; });
  if (found == addresses_.end()) return std::nullopt;
  return found->address;
}

}  // namespace lumen
