#include <algorithm>
#include <cstdint>

#include "lumen/ctl/check/Checks.h"
#include "lumen/services/nat/Policy.h"

namespace lumenctl {

namespace {

/// Addresses, both ends included.
struct Range {
  lumen::Ipv4Address first;
  lumen::Ipv4Address last;

  [[nodiscard]] bool holds(lumen::Ipv4Address address) const {
    return first <= address && address <= last;
  }
  [[nodiscard]] uint64_t size() const {
    return last < first ? 0 : uint64_t{last.number()} - first.number() + 1;
  }
};

/// The network's own address and its broadcast address belong to no host, but both addresses of a
/// network of two do (RFC 3021).
Range hostsOf(lumen::Ipv4Network network) {
  const Range all = {network.first(), network.last()};
  if (network.prefix() > 30) return all;
  return {lumen::Ipv4Address::fromNumber(all.first.number() + 1),
          lumen::Ipv4Address::fromNumber(all.last.number() - 1)};
}

/// Whether a host of the interface's networks that is not this router is listed.
bool isListed(const CheckedInterface& interface, const std::vector<lumen::Ipv4Network>& listed) {
  for (const ConnectedNetwork& connected : interface.networks) {
    const Range hosts = hostsOf(connected.network);
    for (const lumen::Ipv4Network& network : listed) {
      const Range both = {std::max(hosts.first, network.first()),
                          std::min(hosts.last, network.last())};
      const auto own =
          std::count_if(interface.addresses.begin(), interface.addresses.end(),
                        [&](lumen::Ipv4Address address) { return both.holds(address); });
      if (both.size() > static_cast<uint64_t>(own)) return true;
    }
  }
  return false;
}

Finding allowsNone(const std::string& limit, const std::string& usual) {
  return {"policy-allows-no-port", "The policy allows no open port: " + limit + " is 0.",
          "Every program that asks for a port is refused.",
          "lumenctl nat policy set " + limit + "=" + usual};
}

}  // namespace

Findings checkPolicy(const std::optional<NatPolicy>& policy,
                     const std::vector<CheckedInterface>& interfaces) {
  Findings findings;
  if (!policy) return findings;
  if (!policy->remotesPossible) {
    findings.push_back({"ruleset-without-remote-networks",
                        "/etc/lumen/nat-ruleset.nft has no map \"filtered\".",
                        "A program that asks for a port for some remote hosts alone is refused.",
                        "take the map and its rule over from the file of the package, then: "
                        "systemctl restart lumend"});
  }
  if (policy->maxRules == 0) findings.push_back(allowsNone("max-rules", "4096"));
  if (policy->maxRulesPerClient == 0) {
    findings.push_back(allowsNone("max-rules-per-client", "128"));
  }
  const auto clients = lumen::ClientNetworks::parse(policy->internalClients);
  if (!clients) return findings;
  if (clients->includesConnected()) {
    findings.push_back({"policy-reaches-all-networks",
                        "The policy lets ports lead into every network of this router: "
                        "internal-clients is " +
                            policy->internalClients + ".",
                        "A host can open a port into a network that the firewall keeps it out of.",
                        "lumenctl nat policy set internal-clients=internal"});
    return findings;
  }
  if (clients->includesInternal()) return findings;
  std::string all = policy->internalClients;
  std::erase(all, ' ');
  for (const CheckedInterface& interface : interfaces) {
    if (interface.role != Role::internal || interface.networks.empty() ||
        std::ranges::count(clients->interfaces(), interface.name) > 0 ||
        isListed(interface, clients->networks())) {
      continue;
    }
    // Each command keeps what those before it have added.
    all += "," + interface.name;
    findings.push_back({"policy-excludes-network",
                        "The policy allows no port to the hosts of " + interface.name +
                            ": internal-clients is " + policy->internalClients + ".",
                        "Every program there that asks for a port is refused.",
                        "lumenctl nat policy set internal-clients=" + all});
  }
  return findings;
}

}  // namespace lumenctl
