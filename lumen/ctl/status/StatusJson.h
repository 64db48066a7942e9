#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/router/PortEvent.h"
#include "lumen/ctl/router/Snapshot.h"

/// The status for programs: what `lumenctl status --json` prints and the status page serves.
namespace lumenctl {

/// Rises when a field changes its meaning or goes; not when one is added.
inline constexpr int statusVersion = 1;

/// In the order of their ports.
void sortByPort(std::vector<NatRule>& rules);

/// A list of the ports.
[[nodiscard]] std::string portsJson(std::vector<NatRule> rules);

/// In the order of their hosts, then ports.
void sortByHost(std::vector<Pinhole>& pinholes);

/// A list of the ports of IPv6 hosts.
[[nodiscard]] std::string pinholesJson(std::vector<Pinhole> pinholes);

/// An object of the version, the gateway's state, the interfaces, the ports, the newest refusals at
/// ports of the router's own programs, and the ports of IPv6 hosts.
[[nodiscard]] std::string statusJson(GatewayState gateway,
                                     const std::vector<UsedInterface>& interfaces,
                                     const std::vector<NatRule>& rules,
                                     const std::vector<PortEvent>& refusals,
                                     const std::vector<Pinhole>& pinholes);

}  // namespace lumenctl
