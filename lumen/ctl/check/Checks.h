#pragma once

#include "lumen/ctl/check/Finding.h"
#include "lumen/ctl/check/Observation.h"

/// The checks of `upnp check`, each a function of what was read.
namespace lumenctl {

/// What is wrong, in the order in which to fix it.
[[nodiscard]] Findings findProblems(const Observation& seen);

/// What could not be checked, and what that needs.
[[nodiscard]] std::vector<std::string> notChecked(const Observation& seen);

// The platform and the gateway.
[[nodiscard]] Findings checkPlatform(const Observation& seen);
[[nodiscard]] Findings checkGateway(const Observation& seen);
[[nodiscard]] Findings checkLinks(const std::vector<CheckedInterface>& interfaces);
[[nodiscard]] Findings checkSockets(const std::vector<CheckedInterface>& interfaces);
[[nodiscard]] Findings checkExternalAddress(const std::vector<CheckedInterface>& interfaces);
[[nodiscard]] Findings checkStalePorts(const std::vector<NatRule>& rules);
[[nodiscard]] Findings checkWebPage(const std::optional<WebPage>& page);
[[nodiscard]] Findings checkPcp(const std::optional<PcpReport>& pcp);
[[nodiscard]] Findings checkPolicy(const std::optional<NatPolicy>& policy,
                                   const std::vector<CheckedInterface>& interfaces);

// The machine beside them.
[[nodiscard]] Findings checkKernel(const std::string& release);
[[nodiscard]] Findings checkForwarding(const std::optional<bool>& all,
                                       const std::vector<CheckedInterface>& interfaces);
[[nodiscard]] Findings checkDefaultRoute(bool present,
                                         const std::vector<CheckedInterface>& interfaces);
[[nodiscard]] Findings checkFirewall(const std::vector<ForwardChain>& chains,
                                     const std::vector<CheckedInterface>& interfaces);
/// While hosts can open pinholes.
[[nodiscard]] Findings checkIpv6Firewall(const std::vector<ForwardChain>& chains,
                                         const std::vector<CheckedInterface>& interfaces,
                                         const std::optional<PcpReport>& pcp);
[[nodiscard]] Findings checkPortUsers(const std::vector<PortUser>& users);
[[nodiscard]] Findings checkBridgedTraffic(bool filtered,
                                           const std::vector<CheckedInterface>& interfaces);

}  // namespace lumenctl
