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
/// What open(), add(), remove() and change() fail with is one line; then nothing changed.
class NatMap {
 public:
  /// `nftables` must outlive this.
  explicit NatMap(Nftables& nftables) : nftables_(nftables) {}
  NatMap(const NatMap&) = delete;
  NatMap& operator=(const NatMap&) = delete;

  /// Makes the table from the ruleset file at `path`. It must not exist yet; afterwards it is this
  /// process's own.
  [[nodiscard]] Result<void> open(const std::string& path);

  [[nodiscard]] Result<void> add(const RuleKey& key, const Endpoint& client);
  [[nodiscard]] Result<void> remove(const std::vector<RuleKey>& keys);
  /// Sends what comes for `key` to `client` from now on. The element keeps its counter.
  [[nodiscard]] Result<void> change(const RuleKey& key, const Endpoint& client);

  /// How many connections came through each port since it was added: its element counts packets,
  /// and a NAT chain sees the first packet of a connection only. None when the kernel does not
  /// tell, which is logged.
  [[nodiscard]] std::optional<std::map<RuleKey, uint64_t>> uses();
  /// The same of one port; a failure is not logged.
  [[nodiscard]] std::optional<uint64_t> uses(const RuleKey& key);

 private:
  [[nodiscard]] Result<void> run(const std::string& commands);

  Nftables& nftables_;
};

}  // namespace lumen
