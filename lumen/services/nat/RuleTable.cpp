#include "lumen/services/nat/RuleTable.h"

#include "platform/Keys.h"

namespace lumen {

namespace {

template <typename Key>
uint32_t countOf(const std::map<Key, uint32_t>& counts, const Key& key) {
  const auto count = counts.find(key);
  return count == counts.end() ? 0 : count->second;
}

}  // namespace

void RuleTable::insert(uint32_t id, const Rule& rule) {
  byKey_.insert(rules_.emplace(id, rule).first);
  ++clientRules_[rule.client.address];
  ++ownerRules_[*rule.owner];
}

void RuleTable::erase(Rules::iterator it) {
  byKey_.erase(it);
  const auto ofClient = clientRules_.find(it->second.client.address);
  if (--ofClient->second == 0) clientRules_.erase(ofClient);
  --ownerRules_[*it->second.owner];
  rules_.erase(it);
}

const std::string& RuleTable::ownerName(const std::string& name) {
  return ownerRules_.try_emplace(name).first->first;
}

uint32_t RuleTable::nextId() {
  do {
    ++lastId_;
  } while (lastId_ == 0 || lastId_ == lm::none || rules_.contains(lastId_));
  return lastId_;
}

const Rule* RuleTable::find(const RuleKey& key) const {
  const auto it = byKey_.find(key);
  return it == byKey_.end() ? nullptr : &(*it)->second;
}

uint32_t RuleTable::sizeOf(Ipv4Address client) const { return countOf(clientRules_, client); }

uint32_t RuleTable::sizeOf(const std::string& owner) const { return countOf(ownerRules_, owner); }

}  // namespace lumen
