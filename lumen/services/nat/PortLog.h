#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumen/services/LocalHandler.h"
#include "lumen/services/nat/Rule.h"
#include "lumen/values/Ipv6.h"
#include "platform/wire/NatRules.h"

namespace lumen {

/// The record of what happened to ports, handler [20, 6]: who had which one opened, changed, closed
/// or refused, and when. It lives in memory and does not depend on the journal.
///
/// All refusals are one group, and so are the other events of each client, and those of all IPv6
/// hosts of a network: there a host can have as many addresses as it likes. When the record is
/// full, the oldest event of the largest group makes room: a flood of refusals, or of one client's
/// ports, displaces its own events first.
class PortLog : public LocalHandler {
 public:
  static constexpr size_t capacity = 10'000;
  static constexpr size_t longestOwner = 32;    ///< in bytes; more is cut
  static constexpr size_t longestReason = 120;  ///< in bytes; more is cut

  using Time = std::chrono::sys_time<std::chrono::milliseconds>;
  using WallClock = Time (*)();

  /// Who had something done.
  struct Author {
    std::string name;   ///< a service, or "administrator"
    uint32_t user = 0;  ///< of its process
  };

  /// How many ports of the router's own programs lm::cmd::get gives.
  static constexpr size_t newestOwn = 5;

  /// `notifier` must outlive this.
  explicit PortLog(Notifier& notifier, WallClock clock = systemTime);
  PortLog(const PortLog&) = delete;
  PortLog& operator=(const PortLog&) = delete;

  /// `reason` may be empty.
  void add(lm::nat::Event event, const Author& author, const RuleKey& key, const Endpoint& client,
           std::string_view reason);

  /// What happened to a port of an IPv6 host.
  void add(lm::nat::Event event, const Author& author, const Ipv6Address& host, uint8_t protocol,
           uint16_t port, std::string_view reason);

  /// Adds a refusal, since a program of the router listens at the port. The newest refusal of each
  /// port that this happened to lately is kept beside the record, however full that is.
  void addRefusalOfOwnPort(const Author& author, const RuleKey& key, const Endpoint& client,
                           std::string_view reason);

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;
  [[nodiscard]] bool isPrivate() const override { return true; }

 private:
  /// What few events have.
  struct Extra {
    std::string reason;
    std::optional<Ipv6Address> host;
  };

  // There are up to 10,000, so their members are few and in the order that needs no gaps.
  struct Entry {
    Time time;
    const std::string* owner = nullptr;  // one of owners_
    std::unique_ptr<const Extra> extra;  // null: none
    RuleKey key;
    Endpoint client;
    lm::nat::Event event{};
    uint32_t user = 0;
    uint32_t next = 0;  // of its group; 0: it is the last
  };

  /// By id, in rising order. They lie side by side: in a tree they would take twice the memory.
  class Entries {
   public:
    using Value = std::pair<uint32_t, Entry>;
    using Iterator = std::deque<Value>::iterator;
    using ConstIterator = std::deque<Value>::const_iterator;

    /// `id` is higher than all others.
    void append(uint32_t id, Entry entry) { values_.emplace_back(id, std::move(entry)); }
    void erase(Iterator it) { values_.erase(it); }
    /// REQUIRES: it is there.
    [[nodiscard]] Iterator find(uint32_t id);
    [[nodiscard]] const Entry& newest() const { return values_.back().second; }
    [[nodiscard]] size_t size() const { return values_.size(); }
    [[nodiscard]] Iterator begin() { return values_.begin(); }
    [[nodiscard]] Iterator end() { return values_.end(); }
    [[nodiscard]] ConstIterator begin() const { return values_.begin(); }
    [[nodiscard]] ConstIterator end() const { return values_.end(); }
    [[nodiscard]] ConstIterator upper_bound(uint32_t id) const;

   private:
    std::deque<Value> values_;
  };

  /// The events of a group are a chain, from the oldest to the newest.
  struct Group {
    uint32_t first = 0;
    uint32_t last = 0;
    uint32_t size = 0;

    /// Greater for more events, and of two groups with as many for the one that is older.
    [[nodiscard]] std::pair<uint32_t, uint32_t> rank() const { return {size, ~first}; }
  };

  /// The key of its group: a client as an IPv4-mapped address (RFC 4291 section 2.5.5.2), the first
  /// address of a network of IPv6 hosts, or no address for refusals.
  [[nodiscard]] static Ipv6Address groupOf(const Entry& entry);

  static Time systemTime();

  void add(lm::nat::Event event, const Author& author, const RuleKey& key, const Endpoint& client,
           std::string_view reason, std::optional<Ipv6Address> host);
  [[nodiscard]] uint32_t nextId();
  void append(uint32_t id, Entry entry);
  void dropOne();
  [[nodiscard]] static lm::message record(uint32_t id, const Entry& entry);

  Notifier& notifier_;
  const WallClock clock_;
  Entries entries_;
  std::map<Ipv6Address, Group> groups_;            // none is empty
  std::set<std::pair<uint32_t, uint32_t>> ranks_;  // of groups_
  uint32_t lastId_ = 0;
  std::set<std::string, std::less<>> owners_;              // as many as services that ask
  std::vector<std::pair<RuleKey, lm::message>> ownPorts_;  // with their records, the oldest first
};

}  // namespace lumen
