#include "fuzz/NatTable.h"

#include <algorithm>
#include <string>

#include "fuzz/Fuzz.h"
#include "lumen/services/nat/RuleMessage.h"
#include "platform/Keys.h"

namespace fuzz {

namespace {

const lm::test::Path path{lm::service::interfaces, lm::handler::natRules};

// All that can be wrong with a request of a gateway daemon: it leaves the judgement of ports to the
// table.
lm::message refuse(const std::string& refusal) {
  require(refusal.ends_with("port must be from 1 to 65535"), "requests are well-formed");
  return lm::errorMsg(lm::errorRefused, refusal);
}

}  // namespace

NatTable::NatTable(lm::test::TestPlatform& platform) {
  platform.onRequest(path, lm::cmd::addObject,
                     [this](const lm::message& request) { return add(request); });
  platform.onRequest(path, lm::cmd::setObject,
                     [this](const lm::message& request) { return set(request); });
  platform.onRequest(path, lm::cmd::removeObject,
                     [this](const lm::message& request) { return remove(request); });
}

lm::message NatTable::add(const lm::message& request) {
  const auto wanted = lumen::readRule(request);
  if (!wanted) return refuse(wanted.why());
  require(!wanted->lease && !wanted->anyPort, "a gateway daemon asks for permanent, exact ports");
  const lumen::Rule& rule = wanted->rule;
  require(std::ranges::none_of(rules_, [&](const auto& one) { return one.second.key == rule.key; }),
          "a port is opened once");
  rules_.emplace(++lastId_, rule);
  lm::message reply;
  reply.insert_u32(lm::key::objectId, lastId_);
  return reply;
}

lm::message NatTable::set(const lm::message& request) {
  const auto rule = rules_.find(request.get_u32(lm::key::objectId));
  require(rule != rules_.end(), "only rules that are there are changed");
  const auto change = lumen::readChange(request);
  if (!change) return refuse(change.why());
  require(change->disabled && change->clientAddress && change->clientPort && !change->close,
          "a rule is changed as a whole");
  require(*change->clientAddress == rule->second.client.address, "a mapping keeps its client");
  rule->second.disabled = *change->disabled;
  rule->second.client.port = *change->clientPort;
  return {};
}

lm::message NatTable::remove(const lm::message& request) {
  require(rules_.erase(request.get_u32(lm::key::objectId)) == 1,
          "only rules that are there are removed");
  return {};
}

}  // namespace fuzz
