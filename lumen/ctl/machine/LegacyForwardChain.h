#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "lumen/ctl/machine/PacketFilter.h"

namespace lumenctl {

/// Where the rules of the table "filter" of the legacy iptables lie (struct ipt_getinfo in
/// linux/netfilter_ipv4/ip_tables.h), in bytes from the first one.
struct LegacyLayout {
  uint32_t forward = 0;     ///< the first rule of the chain FORWARD
  uint32_t forwardEnd = 0;  ///< its last one, which is its policy
  uint32_t builtInEnd = 0;  ///< the last one of the last built-in chain; other chains follow
};

/// The chain FORWARD in `rules` (struct ipt_entry one after the other). Reading stops at an entry
/// whose lengths do not fit.
[[nodiscard]] ForwardChain readLegacyForwardChain(std::span<const std::byte> rules,
                                                  const LegacyLayout& layout);

}  // namespace lumenctl
