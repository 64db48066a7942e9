#include "lumen/services/nat/RuleTable.h"

#include "platform/Keys.h"

namespace lumen {

void RuleTable::insert(uint32_t id, const Rule& rule) {
  ids_.emplace(rule.key, id);
  ++clientRules_[rule.client.address];
  rules_.emplace(id, rule);
}

void RuleTable::erase(Rules::iterator it) {
  const Rule& rule = it->second;
  ids_.erase(rule.key);
  const auto count = clientRules_.find(rule.client.address);
  if (--count->second == 0) clientRules_.erase(count);
  rules_.erase(it);
}

uint32_t RuleTable::nextId() {
  do {
    ++lastId_;
  } while (lastId_ == 0 || lastId_ == lm::none || rules_.contains(lastId_));
  return lastId_;
}

const Rule* RuleTable::find(const RuleKey& key) const {
  const auto it = ids_.find(key);
  return it == ids_.end() ? nullptr : &rules_.find(it->second)->second;
}

uint32_t RuleTable::sizeOf(Ipv4Address client) const {
  const auto it = clientRules_.find(client);
  return it == clientRules_.end() ? 0 : it->second;
}

}  // namespace lumen
