#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "lumen/ctl/machine/PacketFilter.h"

namespace lumenctl {

/// Collects the forward chains from the dumps of nf_tables' chains and rules
/// (linux/netfilter/nf_tables.h).
class NftForwardChains {
 public:
  /// Takes a message of a dump of all chains, and later of all rules, in the kernel's order. Other
  /// and invalid messages are ignored.
  void take(const nlmsghdr& message);

  [[nodiscard]] std::vector<ForwardChain> chains() const;

 private:
  using ChainKey = std::tuple<uint32_t, std::string, std::string>;  // family, table, name

  void takeChain(uint32_t family, std::span<const std::byte> attributes);
  void takeRule(uint32_t family, std::span<const std::byte> attributes);

  std::map<ChainKey, ForwardChain> forward_;
  std::map<ChainKey, bool> others_;  // chains at no hook: whether one accepts open ports
};

}  // namespace lumenctl
