#include "lumen/services/nat/Rule.h"

#include <netinet/in.h>

#include <algorithm>

namespace lumen {

bool Rule::admits(Ipv4Address remote) const {
  return remotes.empty() || std::ranges::any_of(remotes, [remote](const Ipv4Network& network) {
           return network.holds(remote);
         });
}

const char* protocolText(uint8_t protocol) { return protocol == IPPROTO_TCP ? "tcp" : "udp"; }

std::string keyText(const RuleKey& key) {
  return std::string(protocolText(key.protocol)) + " port " + std::to_string(key.external.port) +
         " of " + key.external.address.text();
}

}  // namespace lumen
