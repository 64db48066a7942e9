#pragma once

#include <vector>

#include "lumen/ctl/Session.h"
#include "lumen/ctl/text/Table.h"

/// Open ports as the commands show them, in rising order of port.
namespace lumenctl {

[[nodiscard]] Json portsAsJson(const std::vector<NatRule>& rules);
[[nodiscard]] Json pinholesAsJson(const std::vector<Pinhole>& pinholes);
/// When leases end is a column where a rule has one.
[[nodiscard]] Table portsAsTable(std::vector<NatRule> rules);

/// Ports of IPv6 hosts, in rising order of host and port.
[[nodiscard]] Table pinholesAsTable(std::vector<Pinhole> pinholes);

}  // namespace lumenctl
