#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumen/services/nat/Rule.h"
#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The open ports as the kernel has them: the elements of the map `forwards` in the nftables table
/// `ip lumen`. Each change is one transaction, and one port costs the same however many are open.
///
/// A failure is one line of text, and leaves everything as it was.
class NatMap {
 public:
  /// `nftables` must outlive this.
  explicit NatMap(Nftables& nftables) : nftables_(nftables) {}
  NatMap(const NatMap&) = delete;
  NatMap& operator=(const NatMap&) = delete;

  /// Makes the table from the ruleset file at `path`. It must not exist yet; afterwards this
  /// process owns it.
  [[nodiscard]] Result<void> open(const std::string& path);

  [[nodiscard]] Result<void> add(const RuleKey& key, const Endpoint& client);
  [[nodiscard]] Result<void> remove(const std::vector<RuleKey>& keys);
  /// From now on packets for `key` go to `client`. The element keeps its counter.
  [[nodiscard]] Result<void> change(const RuleKey& key, const Endpoint& client);

  /// How many connections came through each port since it was added: its element counts packets,
  /// and a NAT chain sees only the first packet of a connection.
  [[nodiscard]] Result<std::map<RuleKey, uint64_t>> uses();
  /// The same of one port.
  [[nodiscard]] Result<uint64_t> uses(const RuleKey& key);

 private:
  Nftables& nftables_;
};

}  // namespace lumen
