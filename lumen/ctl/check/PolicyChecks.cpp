#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <sstream>

#include "lumen/ctl/check/Checks.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

/// Addresses in host byte order, both ends included.
struct Range {
  uint64_t first = 0;
  uint64_t last = 0;
};

Range rangeOf(uint32_t address, uint32_t mask) { return {address & mask, address | ~mask}; }

/// The policy's list of clients as lumend prints it: "192.168.88.0/24, 10.1.2.3".
std::vector<Range> rangesIn(const std::string& clients) {
  std::vector<Range> ranges;
  std::istringstream entries(clients);
  for (std::string entry; std::getline(entries >> std::ws, entry, ',');) {
    const size_t slash = entry.find('/');
    uint32_t prefix = 32;
    if (slash != std::string::npos) {
      std::from_chars(entry.data() + slash + 1, entry.data() + entry.size(), prefix);
    }
    in_addr address{};
    if (inet_pton(AF_INET, entry.substr(0, slash).c_str(), &address) != 1 || prefix > 32) continue;
    ranges.push_back(rangeOf(ntohl(address.s_addr), prefix == 0 ? 0 : ~0U << (32 - prefix)));
  }
  return ranges;
}

/// The hosts of a network: its own address and its broadcast address are none.
Range hostsOf(const ConnectedNetwork& network) {
  Range hosts = rangeOf(ntohl(network.address), ntohl(network.mask));
  if (hosts.last - hosts.first >= 3) {
    ++hosts.first;
    --hosts.last;
  }
  return hosts;
}

/// Whether a host of the interface's networks that is not this router is listed.
bool isListed(const CheckedInterface& interface, const std::vector<Range>& listed) {
  for (const ConnectedNetwork& network : interface.networks) {
    const Range hosts = hostsOf(network);
    for (const Range& range : listed) {
      const uint64_t first = std::max(hosts.first, range.first);
      const uint64_t last = std::min(hosts.last, range.last);
      if (first > last) continue;
      const auto own = std::count_if(
          interface.addresses.begin(), interface.addresses.end(),
          [&](uint32_t address) { return first <= ntohl(address) && ntohl(address) <= last; });
      if (last - first + 1 > static_cast<uint64_t>(own)) return true;
    }
  }
  return false;
}

std::string named(const ConnectedNetwork& network) {
  return dotted(network.address) + "/" + std::to_string(std::popcount(network.mask));
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
  if (policy->maxRules == 0) findings.push_back(allowsNone("max-rules", "4096"));
  if (policy->maxRulesPerClient == 0) {
    findings.push_back(allowsNone("max-rules-per-client", "1024"));
  }
  const std::string& clients = policy->internalClients;
  if (clients.find("connected") != std::string::npos) return findings;
  const std::vector<Range> listed = rangesIn(clients);
  std::string all = clients;
  std::erase(all, ' ');
  for (const CheckedInterface& interface : interfaces) {
    if (interface.role != Role::internal || interface.networks.empty() ||
        isListed(interface, listed)) {
      continue;
    }
    // Each command keeps what those before it have added.
    for (const ConnectedNetwork& network : interface.networks) all += "," + named(network);
    findings.push_back({"policy-excludes-network",
                        "The policy allows no port to the hosts of " + interface.name +
                            ": internal-clients is " + clients + ".",
                        "Every program there that asks for a port is refused.",
                        "lumenctl nat policy set internal-clients=" + all});
  }
  return findings;
}

}  // namespace lumenctl
