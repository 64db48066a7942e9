#include "lumen/services/pinholes/Ipv6Networks.h"

#include <algorithm>
#include <utility>

namespace lumen {

bool Ipv6Networks::isOwn(const Ipv6Address& address) const {
  return std::ranges::any_of(addresses_, [&](const auto& held) {
    return std::ranges::any_of(held.second,
                               [&](const Ipv6LinkAddress& own) { return own.address == address; });
  });
}

std::optional<std::string> Ipv6Networks::internalInterfaceOf(const Ipv6Address& host) const {
  if (!host.isRoutable() || isOwn(host)) return std::nullopt;
  for (const auto& [index, held] : addresses_) {
    const auto name = names_.find(index);
    if (name == names_.end() || !internalNames_.contains(name->second)) continue;
    for (const Ipv6LinkAddress& own : held) {
      // A host is never the network itself, by which every router there is meant (RFC 4291 section
      // 2.6.1). A network of one or two addresses has hosts only (RFC 6164).
      const bool anycast = own.network.prefix() < 127 && own.network.first() == host;
      if (own.network.holds(host) && !anycast) return name->second;
    }
  }
  return std::nullopt;
}

void Ipv6Networks::internalNames(std::set<std::string> names) {
  internalNames_ = std::move(names);
  notify();
}

void Ipv6Networks::tablesRead(const LinkSnapshot& all) {
  names_.clear();
  for (const auto& [index, link] : all.links) names_.emplace(index, link.name);
  addresses_ = all.ipv6Addresses;
  notify();
}

void Ipv6Networks::linkChanged(const Link& link) {
  std::string& name = names_[link.index];
  if (name == link.name) return;
  name = link.name;
  notify();
}

void Ipv6Networks::linkGone(uint32_t index) {
  names_.erase(index);
  addresses_.erase(index);
  notify();
}

void Ipv6Networks::ipv6AddressAdded(uint32_t index, const Ipv6LinkAddress& address) {
  // It may be one of a host so far.
  if (addresses_[index].insert(address).second) notify();
}

void Ipv6Networks::ipv6AddressRemoved(uint32_t index, const Ipv6LinkAddress& address) {
  if (addresses_[index].erase(address) != 0) notify();
}

void Ipv6Networks::notify() const {
  if (observer_ != nullptr) observer_->internalHostsChanged();
}

}  // namespace lumen
