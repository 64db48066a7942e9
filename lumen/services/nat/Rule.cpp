#include "lumen/services/nat/Rule.h"

#include <netinet/in.h>

namespace lumen {

const char* protocolText(uint8_t protocol) { return protocol == IPPROTO_TCP ? "tcp" : "udp"; }

std::string keyText(const RuleKey& key) {
  return std::string(protocolText(key.protocol)) + " port " + std::to_string(key.external.port) +
         " of " + key.external.address.text();
}

}  // namespace lumen
