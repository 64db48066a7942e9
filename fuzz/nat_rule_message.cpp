// Requests to open and change ports, as any program may send them: what is taken obeys its limits,
// and the record of it asks for the same.

#include <netinet/in.h>

#include <chrono>
#include <string>

#include "fuzz/Fuzz.h"
#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "lumen/services/nat/RuleMessage.h"
#include "platform/Keys.h"
#include "platform/wire/NatRules.h"

namespace {

using fuzz::require;
namespace key = lm::nat::key;

constexpr uint32_t recordOnly[] = {lm::key::objectId, key::owner, key::seconds,
                                   key::connections,  key::stale, key::closed};

void checkRule(const lumen::RuleRequest& request) {
  lumen::Rule rule = request.rule;
  require(rule.key.protocol == IPPROTO_TCP || rule.key.protocol == IPPROTO_UDP,
          "a rule is for TCP or UDP");
  require((request.anyPort || rule.key.external.port != 0) && rule.client.port != 0,
          "a port is from 1 to 65535");
  require(!request.lease || *request.lease >= std::chrono::seconds(1), "a lease has a length");
  require(!rule.closed && rule.connection == 0 && rule.owner == nullptr,
          "only the table says whose a rule is");

  const std::string owner = "upnp";
  rule.owner = &owner;
  lm::message record = lumen::ruleRecord(7, rule, {.left = request.lease});
  const auto refused = lumen::readRule(record);
  require(!refused && refused.why().find("not known") != std::string::npos,
          "a record is no request");
  for (const uint32_t field : recordOnly) record.fields().erase(field);
  if (request.anyPort) record.insert_bool(key::anyPort, true);
  const auto again = lumen::readRule(record);
  require(again && again->rule.key == rule.key && again->rule.client == rule.client &&
              again->rule.disabled == rule.disabled && again->lease == request.lease,
          "the record of a rule asks for that rule");
}

void checkChange(const lumen::RuleChange& change, const lm::message& request) {
  require(!change.clientPort || *change.clientPort != 0, "a port is from 1 to 65535");
  require(!change.lease || *change.lease >= std::chrono::seconds(1), "a lease has a length");
  require(!change.close ||
              (!change.disabled && !change.clientAddress && !change.clientPort && !change.lease),
          "closing a port changes nothing else");
  require(change.disabled.has_value() == (request.fields().find(lm::key::disabled) != nullptr),
          "what a request does not have does not change");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto request = lm::decode(fuzz::text(data, size));
  if (!request) return 0;
  const auto rule = lumen::readRule(*request);
  require(rule || !rule.why().empty(), "a refused rule has a reason");
  if (rule) checkRule(*rule);
  const auto change = lumen::readChange(*request);
  require(change || !change.why().empty(), "a refused change has a reason");
  if (change) checkChange(*change, *request);
  return 0;
}
