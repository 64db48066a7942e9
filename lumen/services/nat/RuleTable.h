#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "lumen/services/nat/Rule.h"
#include "lumen/values/Ipv4.h"

namespace lumen {

/// The rules by their ids, with what must be known of them at each change: which key is taken, and
/// how many a client and an owner have.
class RuleTable {
 public:
  using Rules = std::map<uint32_t, Rule>;

  RuleTable() = default;
  RuleTable(const RuleTable&) = delete;
  RuleTable& operator=(const RuleTable&) = delete;

  /// Neither the id nor the key is in use.
  void insert(uint32_t id, const Rule& rule);
  void erase(Rules::iterator it);
  /// The name of an owner, as its rules point to it. Valid as long as the table.
  [[nodiscard]] const std::string& ownerName(const std::string& name);
  /// Of no rule, and not used since the numbers last began again.
  [[nodiscard]] uint32_t nextId();

  [[nodiscard]] Rules& rules() { return rules_; }
  [[nodiscard]] const Rules& rules() const { return rules_; }
  [[nodiscard]] Rules::iterator find(uint32_t id) { return rules_.find(id); }
  /// The rule with this key, enabled or not; null: there is none. Valid until the table changes.
  [[nodiscard]] const Rule* find(const RuleKey& key) const;
  [[nodiscard]] size_t size() const { return rules_.size(); }
  /// How many lead to it.
  [[nodiscard]] uint32_t sizeOf(Ipv4Address client) const;
  /// How many it has, whichever of its connections added them.
  [[nodiscard]] uint32_t sizeOf(const std::string& owner) const;

 private:
  struct ByKey {
    using is_transparent = void;
    bool operator()(Rules::const_iterator a, Rules::const_iterator b) const {
      return a->second.key < b->second.key;
    }
    bool operator()(Rules::const_iterator a, const RuleKey& b) const { return a->second.key < b; }
    bool operator()(const RuleKey& a, Rules::const_iterator b) const { return a < b->second.key; }
  };

  Rules rules_;
  std::set<Rules::const_iterator, ByKey> byKey_;
  std::map<Ipv4Address, uint32_t> clientRules_;  // none is 0
  std::map<std::string, uint32_t> ownerRules_;   // as many as services that ever asked
  uint32_t lastId_ = 0;
};

}  // namespace lumen
