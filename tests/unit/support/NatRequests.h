#pragma once

#include <cstdint>

#include "platform/message.h"

namespace lm::test {

/// A port that the gateway daemon wants open.
struct NatRule {
  uint32_t protocol = 6;
  uint32_t port = 8080;
  const char* client = "192.168.88.10";
  uint32_t clientPort = 80;
  bool disabled = false;
  const char* external = "45.45.45.1";
};

// The requests of the gateway daemon to the NAT rule table, without the transport fields. Keys are
// written as numbers, so that a change of the wire schema fails a test.

lm::message addRuleRequest(const NatRule& rule);
lm::message setRuleRequest(uint32_t id, const char* client, uint32_t clientPort,
                           bool disabled = false);
lm::message removeRuleRequest(uint32_t id);

}  // namespace lm::test
