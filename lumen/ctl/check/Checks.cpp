#include "lumen/ctl/check/Checks.h"

namespace lumenctl {

Findings findProblems(const Observation& seen) {
  Findings all;
  for (const Findings& some :
       {checkKernel(seen.kernel), checkPlatform(seen), checkGateway(seen),
        checkLinks(seen.interfaces), checkExternalAddress(seen.interfaces),
        checkDefaultRoute(seen.defaultRoute, seen.interfaces),
        checkForwarding(seen.forwards, seen.interfaces),
        checkFirewall(seen.chains.value_or(std::vector<ForwardChain>()), seen.interfaces),
        checkIpv6Firewall(seen.chains.value_or(std::vector<ForwardChain>()), seen.interfaces,
                          seen.pcp),
        checkBridgedTraffic(seen.bridgedIsFiltered, seen.interfaces),
        checkPortUsers(seen.portUsers), checkSockets(seen.interfaces), checkWebPage(seen.webPage),
        checkPcp(seen.pcp), checkPolicy(seen.policy, seen.interfaces),
        checkStalePorts(seen.rules)}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

std::vector<std::string> notChecked(const Observation& seen) {
  std::vector<std::string> parts;
  if (!seen.chains) parts.emplace_back("the firewall, which takes root to read");
  return parts;
}

}  // namespace lumenctl
