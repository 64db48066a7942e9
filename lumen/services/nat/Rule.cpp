#include "lumen/services/nat/Rule.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace lumen {

std::string addressText(uint32_t address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

const char* protocolText(uint8_t protocol) { return protocol == IPPROTO_TCP ? "tcp" : "udp"; }

std::string keyText(const RuleKey& key) {
  return std::string(protocolText(key.protocol)) + " port " + std::to_string(key.external.port) +
         " of " + addressText(key.external.address);
}

}  // namespace lumen
