#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "lumen/ctl/machine/PacketFilter.h"

namespace lumenctl {

/// Collects the forward chains from the dumps of nf_tables' chains, rules and sets
/// (linux/netfilter/nf_tables.h).
class NftForwardChains {
 public:
  /// Of a chain or a set: its family (NFPROTO_*), table and name.
  using Key = std::tuple<uint32_t, std::string, std::string>;

  /// Takes a message of a dump of all chains, then of all rules, in the kernel's order, then of the
  /// elements of linkSets(). Other and invalid messages are ignored.
  void take(const nlmsghdr& message);

  /// The sets in which rules for open ports look up the incoming interface.
  [[nodiscard]] std::set<Key> linkSets() const;

  [[nodiscard]] std::vector<ForwardChain> chains() const;

 private:
  struct Rule {
    ForwardRule known;
    std::string linkSet;  // of the same table, has the incoming interfaces; empty: there is none
  };
  /// The elements of a set of interfaces.
  struct LinkSet {
    std::vector<std::string> links;
    bool intervals = false;  // which are not understood here
  };

  void takeChain(uint32_t family, std::span<const std::byte> attributes);
  void takeRule(uint32_t family, std::span<const std::byte> attributes);
  void takeElements(uint32_t family, std::span<const std::byte> attributes);

  /// The rules of a chain, with the interfaces of their sets.
  [[nodiscard]] std::vector<ForwardRule> rulesOf(const Key& chain) const;

  std::map<Key, ForwardChain> forward_;
  std::set<Key> others_;  // chains at no hook
  std::map<Key, std::vector<Rule>> rules_;
  std::map<Key, LinkSet> sets_;
};

}  // namespace lumenctl
