#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/services/pinholes/Pinhole.h"
#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The pinholes as the kernel has them: the elements of the set `pinholes` in the nftables table
/// `ip6 lumen`. Each change is one transaction, and one pinhole costs the same however many there
/// are. A pinhole with remote networks has an element for each in the set `filtered` instead, which
/// a ruleset file that was kept from before may lack.
///
/// A failure is one line of text, and leaves everything as it was.
class PinholeSet {
 public:
  /// `nftables` must outlive this.
  explicit PinholeSet(Nftables& nftables) : nftables_(nftables) {}
  PinholeSet(const PinholeSet&) = delete;
  PinholeSet& operator=(const PinholeSet&) = delete;

  /// Makes the table from the ruleset file at `path`. It must not exist yet; afterwards this
  /// process owns it. After a failure there is no table of ours.
  [[nodiscard]] Result<void> open(const std::string& path);

  /// The label of the connections through pinholes, as the ruleset file has it; none: the table is
  /// not open, or nft shows a name instead of the number.
  [[nodiscard]] std::optional<uint32_t> label() const { return label_; }

  /// Whether pinholes may have remote networks.
  [[nodiscard]] bool hasRemotes() const { return hasRemotes_; }

  [[nodiscard]] Result<void> add(const Pinhole& pinhole);
  [[nodiscard]] Result<void> remove(const std::vector<Pinhole>& pinholes);
  /// `after` has the key of `before`.
  [[nodiscard]] Result<void> change(const Pinhole& before, const Pinhole& after);

 private:
  Nftables& nftables_;
  std::optional<uint32_t> label_;
  bool hasRemotes_ = false;
};

}  // namespace lumen
