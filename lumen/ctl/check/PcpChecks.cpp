#include "lumen/ctl/check/Checks.h"

namespace lumenctl {

namespace {

constexpr const char* consequence = "Programs that speak NAT-PMP or PCP alone get no open port.";

}  // namespace

Findings checkPcp(const std::optional<PcpReport>& pcp) {
  if (!pcp) return {};
  if (!pcp->server) {
    const bool waits = pcp->state == ServiceState::waiting;
    if (pcp->state != ServiceState::running && !waits) return {};  // it starts
    return {{waits ? "pcp-crashed" : "pcp-not-answering",
             waits ? "NAT-PMP and PCP are switched on, and their program has crashed."
                   : "NAT-PMP and PCP are switched on, and their program does not answer.",
             consequence,
             "see its lines in lumend's log; lumenctl service list shows when it starts again"}};
  }
  Findings findings;
  if (!pcp->server->problem.empty()) {
    findings.push_back({"pcp-not-served", "NAT-PMP and PCP: " + pcp->server->problem + ".",
                        std::string(consequence) + " It is tried again every few seconds.",
                        "see what has the port: ss -lunp sport = :5351"});
  }
  // A router without IPv6 forwards none, and nothing is wrong with it.
  const PinholeSettings& pinholes = pcp->pinholes;
  if (pinholes.problem.starts_with("no IPv6 pinholes")) {
    findings.push_back({"no-pinholes", "No IPv6 pinhole can be opened: " + pinholes.problem + ".",
                        "Hosts that ask for one by PCP over IPv6 are refused; all else works.",
                        "restore the file pinhole-ruleset.nft of the installation, then restart "
                        "lumend"});
  } else if (!pinholes.remotesPossible) {
    findings.push_back({"pinhole-ruleset-without-remote-networks",
                        "/etc/lumen/pinhole-ruleset.nft has no set \"filtered\".",
                        "A host that asks for a pinhole for some remote hosts alone is refused.",
                        "take the set and its rule over from the file of the package, then: "
                        "systemctl restart lumend"});
  }
  return findings;
}

}  // namespace lumenctl
