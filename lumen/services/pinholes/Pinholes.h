#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/services/LocalHandler.h"
#include "lumen/services/nat/Leases.h"
#include "lumen/services/nat/PolicyBook.h"
#include "lumen/services/nat/PortLog.h"
#include "lumen/services/pinholes/Ipv6Networks.h"
#include "lumen/services/pinholes/Pinhole.h"
#include "lumen/services/pinholes/PinholeFlows.h"
#include "lumen/services/pinholes/PinholeSet.h"
#include "lumen/services/system/netlink/Ipv6Forwarding.h"
#include "lumen/values/Result.h"
#include "platform/wire/Pinholes.h"

namespace lumen {

/// The pinhole table, handler [20, 7]: the ports of IPv6 hosts on the LAN that the Internet may
/// reach. platform/wire/Pinholes.h says how to talk to it.
///
/// Every change is made in the kernel first. A pinhole ends with its lease, with the connection
/// that added it, or when its host is no longer in a network of an internal interface.
class Pinholes : public LocalHandler,
                 private Leases::Owner,
                 private Ipv6Networks::Observer,
                 private PinholeFlows::Open {
 public:
  /// All must outlive this; `policies` is loaded. There can be no pinholes before begin().
  Pinholes(PinholeSet& set, Ipv6Flows& flows, Ipv6Networks& networks, Ipv6Forwarding& forwarding,
           const PolicyBook& policies, PortLog& log, Notifier& notifier, const lm::Clock& clock);
  Pinholes(const Pinholes&) = delete;
  Pinholes& operator=(const Pinholes&) = delete;

  /// Makes the kernel's table from the ruleset file at `path`. Without it pinholes are refused.
  /// Schedules the end of the UDP flows through the pinholes of an earlier lumend.
  void begin(const std::string& path);
  /// Whether no UDP flow through a pinhole that has ended is left.
  [[nodiscard]] bool flowsEnded() const { return flows_.idle(); }

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;
  [[nodiscard]] bool isPrivate() const override { return true; }
  void connectionEnded(uint64_t connection) override;

 private:
  using Table = std::map<uint32_t, Pinhole>;
  using OptionalEnd = std::optional<lm::pinholes::End>;

  struct Refused {
    std::string text;
    lm::pinholes::Refusal why = lm::pinholes::Refusal::other;
  };
  using OptionalRefused = std::optional<Refused>;

  [[nodiscard]] lm::message change(const Caller& caller, uint32_t command,
                                   const lm::message& request);
  [[nodiscard]] OptionalRefused add(const Caller& caller, const lm::message& request,
                                    lm::message& reply);
  [[nodiscard]] OptionalRefused renew(const Caller& caller, const lm::message& request);
  [[nodiscard]] OptionalRefused remove(const Caller& caller, const lm::message& request);

  [[nodiscard]] static OptionalRefused asRefusal(const Result<void>& allowed,
                                                 lm::pinholes::Refusal why);
  /// Why there can be no pinholes now; none: there can.
  [[nodiscard]] OptionalRefused refuseAll() const;
  /// Unless the kernel's table can hold the remote networks, if there are any, instead of the
  /// number of others that the pinhole has.
  [[nodiscard]] OptionalRefused refuseRemotes(const Ipv6NetworkList& remotes, size_t others) const;
  [[nodiscard]] OptionalRefused refuseByPolicy(const PinholeKey& key) const;
  [[nodiscard]] OptionalRefused refuseFull(const Caller& caller, const Pinhole& pinhole) const;

  /// Puts `after` in the place of a pinhole with the same key, in the kernel too.
  [[nodiscard]] Result<void> replace(Table::iterator it, const Pinhole& after);
  void undoRemove(uint32_t id, const Pinhole& removed);

  // With an `end` the owner is notified too: this process has ended the pinhole.
  [[nodiscard]] Result<void> drop(Table::iterator it, OptionalEnd end);
  /// Removes all for which `ends` holds, and logs what the kernel keeps. `why` is for the record of
  /// events.
  template <typename Ends>
  void dropAll(const Ends& ends, OptionalEnd end, std::string_view why);
  /// Records what was done to the pinhole, by its owner unless another `author` is given.
  void note(lm::nat::Event event, const Pinhole& pinhole, std::string_view reason);
  void note(lm::nat::Event event, const PortLog::Author& author, const PinholeKey& key,
            std::string_view reason);
  void setUntil(Table::iterator it, lm::Clock::Time until);
  void insert(uint32_t id, const Pinhole& pinhole);
  void erase(Table::iterator it, OptionalEnd end);
  [[nodiscard]] uint32_t nextId();

  void leasesEnded(const std::vector<uint32_t>& ids) override;
  void internalHostsChanged() override;
  [[nodiscard]] bool admits(const Ipv6Flow& flow) const override;

  [[nodiscard]] lm::pinholes::Record record(uint32_t id, const Pinhole& pinhole) const;
  void notify(uint64_t owner, lm::message record, OptionalEnd end);

  PinholeSet& set_;
  const Ipv6Networks& networks_;
  Ipv6Forwarding& forwarding_;
  const PolicyBook& policies_;
  PortLog& log_;
  Notifier& notifier_;
  const lm::Clock& clock_;

  std::string problem_ = "lumend has not begun";  // empty: the kernel's table is there
  Table table_;                                   // by id
  std::map<PinholeKey, uint32_t> ids_;            // of all
  std::map<Ipv6Address, uint32_t> byHost_;        // how many each has; none is 0
  std::map<std::string, uint32_t> byInterface_;   // how many the hosts of each have; none is 0
  size_t remotes_ = 0;                            // of all
  uint32_t lastId_ = 0;
  PinholeFlows flows_;
  Leases leases_;
};

}  // namespace lumen
