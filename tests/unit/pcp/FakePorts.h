#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <variant>

#include "pcp/table/Ports.h"

namespace pcp::test {

/// The network that a filter of an IPv4 client names.
inline lumen::Ipv6Network mapped(lumen::Ipv4Address address, unsigned prefix) {
  return {lumen::Ipv6Address(IpAddress::mapped(address).bytes), mappedPrefix + prefix};
}

/// A router whose ports a test can look at. A wish that is taken gets the next free port, and a
/// wish for any the first free one from 50000 on. Each client of IPv6 has ports of its own.
class FakePorts : public Ports {
 public:
  std::variant<Open, Failure> add(const Wish& wish) override {
    if (failure) return *failure;
    if (refusesNext) return *std::exchange(refusesNext, std::nullopt);
    Wish rule = wish;
    if (rule.external.port == 0) rule.external.port = 50000;
    while (isOpen(rule.protocol, rule.external)) {
      if (wish.exact) return Failure::conflict;
      ++rule.external.port;
    }
    rules.emplace(++lastId, rule);
    return Open{lastId, rule.external.port};
  }

  std::optional<Failure> renew(uint32_t id, uint32_t lifetime,
                               const std::optional<Networks>& remotes) override {
    if (refusesNext) return std::exchange(refusesNext, std::nullopt);
    const auto rule = rules.find(id);
    if (rule == rules.end()) return Failure::gone;
    rule->second.lifetime = lifetime;
    if (remotes) rule->second.remotes = *remotes;
    return std::nullopt;
  }

  void remove(uint32_t id) override { rules.erase(id); }

  std::optional<uint16_t> openByOthers(uint8_t protocol, const IpAddress& external,
                                       const Endpoint& client) override {
    const bool leadsThere = others.protocol == protocol && others.external.address == external &&
                            others.client == client;
    return leadsThere ? std::optional(others.external.port) : std::nullopt;
  }

  [[nodiscard]] bool isOpen(uint8_t protocol, const Endpoint& external) const {
    for (const auto& [id, rule] : rules) {
      if (rule.protocol == protocol && rule.external == external) return true;
    }
    return false;
  }

  std::map<uint32_t, Wish> rules;
  Wish others;  ///< what another service has opened
  uint32_t lastId = 0;
  std::optional<Failure> failure;      ///< of each add
  std::optional<Failure> refusesNext;  ///< of one, or of a renewal
};

}  // namespace pcp::test
