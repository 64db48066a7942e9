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
/// A rule with remote networks has an element for each in the map `filtered` instead, which a
/// ruleset file that was kept from before may lack.
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

  /// Whether rules may have remote networks.
  [[nodiscard]] bool hasRemotes() const { return hasRemotes_; }

  [[nodiscard]] Result<void> add(const Rule& rule);
  [[nodiscard]] Result<void> remove(const std::vector<Rule>& rules);
  /// `after` has the key of `before`, and goes on counting where that was.
  [[nodiscard]] Result<void> change(const Rule& before, const Rule& after);

  /// How many connections came through each port since it was added: its elements count packets,
  /// and a NAT chain sees only the first packet of a connection.
  [[nodiscard]] Result<std::map<RuleKey, uint64_t>> uses();
  /// The same of one port.
  [[nodiscard]] Result<uint64_t> uses(const Rule& rule);

 private:
  [[nodiscard]] Result<ElementCounter> count(const Rule& rule);

  Nftables& nftables_;
  bool hasRemotes_ = false;
};

}  // namespace lumen
