#include "support/NatRequests.h"

#include <arpa/inet.h>

namespace lm::test {

namespace {

void leadTo(lm::message& request, const char* client) {
  request.insert_be32(0x3e8, inet_addr(client));
  request.insert_be32(0x3e9, inet_addr(client));
}

void leadToPort(lm::message& request, uint32_t port) {
  request.insert_u32(0x3ea, port);
  request.insert_u32(0x3eb, port);
}

}  // namespace

lm::message addRuleRequest(const NatRule& rule) {
  lm::message request;
  request.insert_bool(0xfe0007, true);
  request.insert_bool(0xfe000a, rule.disabled);
  request.insert_string(0x27, "dstnat");
  request.insert_bool(0x1a3, true);
  request.insert_be32(0x34, inet_addr(rule.external));
  request.insert_be32(0x35, inet_addr(rule.external));
  request.insert_bool(0x196, true);
  request.insert_u32(9, rule.port);
  request.insert_u32(10, rule.port);
  request.insert_bool(0x194, true);
  request.insert_u32(11, rule.protocol);
  request.insert_u32(0x28, 22);
  request.insert_bool(0x3ee, true);
  leadTo(request, rule.client);
  request.insert_bool(0x3ef, true);
  leadToPort(request, rule.clientPort);
  return request;
}

lm::message setRuleRequest(uint32_t id, const char* client, uint32_t clientPort, bool disabled) {
  lm::message request;
  request.insert_u32(0xfe0001, id);
  request.insert_bool(0xfe000a, disabled);
  leadTo(request, client);
  leadToPort(request, clientPort);
  return request;
}

lm::message removeRuleRequest(uint32_t id) {
  lm::message request;
  request.insert_u32(0xfe0001, id);
  return request;
}

}  // namespace lm::test
