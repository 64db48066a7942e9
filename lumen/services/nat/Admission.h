#pragma once

#include <optional>
#include <string>

#include "lumen/services/LocalHandler.h"
#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/nat/Policy.h"
#include "lumen/services/nat/PolicyBook.h"
#include "lumen/services/nat/PortPicker.h"
#include "lumen/services/nat/Rule.h"
#include "lumen/services/nat/RuleTable.h"
#include "lumen/services/system/netlink/Listeners.h"
#include "platform/wire/NatRules.h"

namespace lumen {

/// Why a rule is refused: in words, and in numbers for programs.
struct Refused {
  std::string text;
  lm::nat::Denial denial{};
  bool isOwnPort = false;  ///< a program of the router listens there
};

/// The owner of the rules that administrators add.
inline constexpr const char* administratorName = "administrator";

/// Decides which rules the table takes: what the caller's service file grants, the policy, this
/// router's addresses, the rules that there are, and the programs of the router that listen at
/// ports.
class Admission {
 public:
  /// All must outlive this.
  Admission(const RuleTable& table, const LocalNetworks& networks,
            const KnownInterfaces& interfaces, Listeners& listeners, const PolicyBook& policies);
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;

  /// Whether `caller` may add `rule`, of which it is the owner; none: it may. With `anyPort` its
  /// external port is a wish, 0 for none, which this replaces where it cannot be granted.
  [[nodiscard]] std::optional<Refused> refuseAdd(const Caller& caller, Rule& rule, bool anyPort);
  /// Whether `caller` may make `after` of a rule at the time `now`.
  [[nodiscard]] std::optional<Refused> refuseSet(const Caller& caller, const Rule& before,
                                                 const Rule& after, lm::Clock::Time now) const;

 private:
  [[nodiscard]] std::optional<Refused> refuseTaken(const Rule& rule) const;
  /// Unless no program of this router listens there, or the policy does not mind.
  [[nodiscard]] std::optional<Refused> refuseOwnPort(const RuleKey& key) const;
  /// Unless `client` may have one rule more, while there are `others` in all.
  [[nodiscard]] std::optional<Refused> refuseFull(Ipv4Address client, size_t others) const;
  [[nodiscard]] std::optional<Refused> choosePort(Rule& rule);
  [[nodiscard]] const Policy& policy() const { return policies_.policy(); }

  const RuleTable& table_;
  const LocalNetworks& networks_;
  const KnownInterfaces& interfaces_;
  Listeners& listeners_;
  const PolicyBook& policies_;
  PortPicker picker_;
};

}  // namespace lumen
