#include "lumen/services/nat/RuleTable.h"

#include "platform/Keys.h"

namespace lumen {

namespace {

template <typename Key>
void countDown(std::map<Key, uint32_t>& counts, const Key& key) {
  const auto count = counts.find(key);
  if (--count->second == 0) counts.erase(count);
}

template <typename Key>
uint32_t countOf(const std::map<Key, uint32_t>& counts, const Key& key) {
  const auto count = counts.find(key);
  return count == counts.end() ? 0 : count->second;
}

}  // namespace

void RuleTable::insert(uint32_t id, const Rule& rule) {
  ids_.emplace(rule.key, id);
  ++clientRules_[rule.client.address];
  ++ownerRules_[rule.owner];
  rules_.emplace(id, rule);
}

void RuleTable::erase(Rules::iterator it) {
  const Rule& rule = it->second;
  ids_.erase(rule.key);
  countDown(clientRules_, rule.client.address);
  countDown(ownerRules_, rule.owner);
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

uint32_t RuleTable::sizeOf(Ipv4Address client) const { return countOf(clientRules_, client); }

uint32_t RuleTable::sizeOf(const std::string& owner) const { return countOf(ownerRules_, owner); }

}  // namespace lumen
