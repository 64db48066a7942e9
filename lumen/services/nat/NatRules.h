#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "lumen/runtime/Clock.h"
#include "lumen/services/LocalHandler.h"
#include "lumen/services/nat/Admission.h"
#include "lumen/services/nat/FlowCleaner.h"
#include "lumen/services/nat/IdHistory.h"
#include "lumen/services/nat/Leases.h"
#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/nat/NatMap.h"
#include "lumen/services/nat/PolicyBook.h"
#include "lumen/services/nat/PortLog.h"
#include "lumen/services/nat/Rule.h"
#include "lumen/services/nat/RuleMessage.h"
#include "lumen/services/nat/RuleTable.h"
#include "lumen/services/system/netlink/Listeners.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The NAT rule table, handler [20, 5]: the ports that programs have opened.
/// platform/wire/NatRules.h says how to talk to it.
///
/// Every change is made in the kernel first, and in the table once the kernel has accepted it. A
/// rule belongs to the connection that added it and ends with that connection, or with its lease.
class NatRules : public LocalHandler, private FlowCleaner::OpenPorts, private Leases::Owner {
 public:
  /// All must outlive this; `policies` is loaded and `map` open.
  NatRules(NatMap& map, Flows& flows, const FlowMarks& marks, const LocalNetworks& networks,
           const KnownInterfaces& interfaces, Listeners& listeners, PolicyBook& policies,
           PortLog& log, Notifier& notifier, const lm::Clock& clock);
  NatRules(const NatRules&) = delete;
  NatRules& operator=(const NatRules&) = delete;

  /// Schedules the end of the UDP flows through ports that an earlier lumend had open.
  void endOldFlows() { cleaner_.resume(); }
  /// Whether no flow through a closed port is left.
  [[nodiscard]] bool flowsEnded() const { return cleaner_.idle(); }

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;
  [[nodiscard]] bool isPrivate() const override { return true; }
  void connectionEnded(uint64_t connection) override;

 private:
  using Rules = RuleTable::Rules;

  /// Who is notified of a change of a rule, beside the readers.
  struct News {
    bool toOwner = false;
    std::optional<lm::nat::End> end = std::nullopt;  // of the rule
  };

  using Numbers = std::map<RuleKey, uint64_t>;

  [[nodiscard]] static News endedBy(lm::nat::End end) { return {.toOwner = true, .end = end}; }

  /// The connections of all rules; none: unknown.
  struct Counts {
    std::optional<Numbers> connections;  // open now
    std::optional<Numbers> uses;         // since the rule was added
  };

  /// A reader that pages through the rules: the connections are counted once for all its pages.
  struct Listing {
    uint64_t reader = 0;
    Counts counts;
  };

  /// Carries out an add, set or remove request, and records it when it is refused.
  [[nodiscard]] lm::message change(const Caller& caller, uint32_t command,
                                   const lm::message& request);
  // Why the request is refused; none: `reply` answers it.
  [[nodiscard]] std::optional<Refused> add(const Caller& caller, const lm::message& request,
                                           lm::message& reply);
  [[nodiscard]] std::optional<Refused> set(const Caller& caller, const lm::message& request);
  [[nodiscard]] std::optional<Refused> remove(const Caller& caller, const lm::message& request);
  [[nodiscard]] lm::message list(const Caller& caller, const lm::message& request);
  [[nodiscard]] lm::message read(const lm::message& request);
  /// The external port of a rule that leads to the same client and that others own.
  [[nodiscard]] lm::message findOther(const Caller& caller, const lm::message& request) const;
  [[nodiscard]] lm::message settings() const;
  /// Unless the kernel's table can hold the remote networks of `rule`, if it has any, beside those
  /// of all others.
  [[nodiscard]] std::optional<Refused> refuseRemotes(const Rule& rule) const;
  [[nodiscard]] lm::message writePolicy(const lm::message& request);

  /// Puts `after` in the place of a rule with the same key, in the kernel too.
  [[nodiscard]] Result<void> replace(Rules::iterator it, Rule after, News news);
  /// Removes a rule, from the kernel too.
  [[nodiscard]] Result<void> drop(Rules::iterator it, News news);

  // Undo a change whose requester gave up. The policy is not consulted: the rules become what they
  // were.
  void undoAdd(uint32_t id);
  void undoSet(uint32_t id, const Rule& before, bool closing);
  void undoRemove(uint32_t id, const Rule& removed);

  /// Brings the kernel from `before` to `after`.
  [[nodiscard]] Result<void> apply(const Rule& before, const Rule& after);
  [[nodiscard]] Result<void> addToKernel(const Rule& rule);
  /// Returns, and logs, what the kernel did not remove.
  std::set<RuleKey> removeFromKernel(const std::vector<Rule>& rules);
  void leasesEnded(const std::vector<uint32_t>& ids) override;
  void flowsMayDiffer(const RuleKey& key);

  /// Records what was done to the rule, by its owner unless another `author` is given.
  void note(lm::nat::Event event, const Rule& rule, std::string_view reason);
  void note(lm::nat::Event event, const PortLog::Author& author, const Rule& rule,
            std::string_view reason);

  /// Adds a rule to the table, or one that was changed, and notifies the readers.
  void insert(uint32_t id, const Rule& rule, News news);
  void erase(Rules::iterator it);
  /// Notifies the readers that the rule has gone, and erases it.
  void eraseForGood(Rules::iterator it, News news);
  void notify(uint64_t owner, lm::message record, News news);

  [[nodiscard]] Counts count();
  [[nodiscard]] lm::message record(uint32_t id, const Rule& rule, const Counts& counts) const;
  [[nodiscard]] std::optional<Endpoint> udpClient(const Endpoint& external,
                                                  Ipv4Address remote) const override;
  [[nodiscard]] bool isUdpOpen(const Endpoint& external) const override;
  [[nodiscard]] const Rule* openUdpRule(const Endpoint& external) const;

  NatMap& map_;
  Flows& flows_;
  const LocalNetworks& networks_;
  PolicyBook& policies_;
  PortLog& log_;
  Notifier& notifier_;
  const lm::Clock& clock_;

  RuleTable table_;
  Admission admission_;
  std::map<uint64_t, IdHistory> everAdded_;  // by connections that have not ended
  std::optional<Listing> listing_;
  FlowCleaner cleaner_;
  Leases leases_;
};

}  // namespace lumen
