#pragma once

#include <optional>
#include <vector>

#include "lumen/ctl/machine/PacketFilter.h"

namespace lumenctl {

/// The chains for forwarded IPv4 packets in this network namespace, of nf_tables and of the legacy
/// iptables. None when they cannot be read, which needs CAP_NET_ADMIN.
[[nodiscard]] std::optional<std::vector<ForwardChain>> readForwardChains();

}  // namespace lumenctl
