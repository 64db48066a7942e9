#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include "lumen/ctl/check/Checks.h"
#include "lumen/values/KernelVersion.h"

namespace lumenctl {

namespace {

std::string ruleFor(const ForwardChain& chain) {
  switch (chain.manager) {
    case ForwardChain::Manager::ufw:
      // What the commands of ufw write cannot look at the state; the file is of iptables-restore.
      return "sed -i -e '/^[*]filter/,/^COMMIT/{/^COMMIT/i -A ufw-before-forward -m conntrack "
             "--ctstate DNAT -j ACCEPT' -e '}' /etc/ufw/before.rules && ufw reload";
    case ForwardChain::Manager::firewalld:
      return "set StrictForwardPorts=no in /etc/firewalld/firewalld.conf, then firewall-cmd "
             "--reload";
    case ForwardChain::Manager::none:
      break;
  }
  const std::string iptables = " -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT";
  switch (chain.tool) {
    case ForwardChain::Tool::iptables:
      return "iptables" + iptables;
    case ForwardChain::Tool::iptablesLegacy:
      return "iptables-legacy" + iptables;
    case ForwardChain::Tool::nft:
      break;
  }
  return "nft insert rule " + chain.family + " " + chain.table + " " + chain.name +
         " ct status dnat accept";
}

std::string nameOf(const ForwardChain& chain) {
  if (chain.tool == ForwardChain::Tool::nft) {
    return chain.name + " of the nftables table " + chain.family + " " + chain.table;
  }
  return chain.name +
         (chain.tool == ForwardChain::Tool::iptables ? " of iptables" : " of iptables-legacy");
}

Finding portInUse(const PortUser& user) {
  const bool tcp = user.protocol == IPPROTO_TCP;
  const std::string port = std::to_string(user.port);
  const bool known = user.process != 0;
  const std::string process = std::to_string(user.process);
  return {"port-in-use",
          (known ? user.program + " (process " + process + ")" : "Another program") +
              " uses port " + port + (tcp ? "/tcp" : "/udp") + ", which the gateway needs.",
          tcp ? "The gateway may not be able to serve the description that programs read first."
              : "The gateway may not hear the programs that search for it.",
          known ? "stop it: systemctl status " + process + " shows what started it"
                : "stop it: ss --" + std::string(tcp ? "tcp" : "udp") +
                      " --listening --processes sport = :" + port + ", as root, shows what it is"};
}

}  // namespace

Findings checkKernel(const std::string& release) {
  const auto version = lumen::KernelVersion::parse(release);
  if (!version || *version >= lumen::oldestKernel) return {};
  return {{"kernel-too-old",
           "The kernel, " + release + ", is older than " + lumen::oldestKernel.text() + ".",
           "lumend does not start: the kernel cannot keep other programs out of its table of open "
           "ports.",
           "install a newer kernel and start it"}};
}

Findings checkForwarding(const std::optional<bool>& all,
                         const std::vector<CheckedInterface>& interfaces) {
  std::vector<CheckedInterface> stopped;
  std::copy_if(interfaces.begin(), interfaces.end(), std::back_inserter(stopped),
               [](const CheckedInterface& interface) { return interface.forwards == false; });
  // The one for all sets each interface's own when it is written, and those are what counts.
  if (all == false && (!stopped.empty() || interfaces.empty())) {
    return {
        {"no-forwarding", "This router forwards no packets: net.ipv4.ip_forward is 0.",
         "What arrives at an open port does not reach its host.",
         "sysctl -w net.ipv4.ip_forward=1 (a file in /etc/sysctl.d sets it at the next start)"}};
  }
  Findings findings;
  for (const CheckedInterface& interface : stopped) {
    const std::string variable = "net/ipv4/conf/" + interface.name + "/forwarding";
    findings.push_back(
        {"no-forwarding-on-interface",
         "Packets that arrive on " + interface.name + " are not forwarded: " + variable + " is 0.",
         interface.role == Role::external
             ? "What arrives there for an open port does not reach its host."
             : "The answers of its hosts do not leave this router.",
         "sysctl -w " + variable + "=1"});
  }
  return findings;
}

Findings checkDefaultRoute(bool present, const std::vector<CheckedInterface>& interfaces) {
  const auto external =
      std::find_if(interfaces.begin(), interfaces.end(), [](const CheckedInterface& interface) {
        return interface.role == Role::external && interface.state == LinkState::running &&
               !interface.addresses.empty();
      });
  if (present || external == interfaces.end()) return {};
  return {{"no-default-route", "The main routing table has no default route.",
           "Answers to the Internet may not leave this router.",
           "ip route add default via GATEWAY dev " + external->name}};
}

Findings checkFirewall(const std::vector<ForwardChain>& chains) {
  Findings findings;
  for (const ForwardChain& chain : chains) {
    if (!chain.stopsOpenPorts()) continue;
    findings.push_back(
        {"firewall-drops",
         "The firewall drops forwarded packets, and does not let those of open ports "
         "pass (chain " +
             nameOf(chain) + ").",
         "What arrives at an open port may not reach its host.", ruleFor(chain)});
  }
  return findings;
}

Findings checkPortUsers(const std::vector<PortUser>& users) {
  Findings findings;
  findings.reserve(users.size());
  for (const PortUser& user : users) findings.push_back(portInUse(user));
  return findings;
}

Findings checkBridgedTraffic(bool filtered, const std::vector<CheckedInterface>& interfaces) {
  Findings findings;
  for (const CheckedInterface& interface : interfaces) {
    if (!filtered || interface.role != Role::internal || !interface.bridge) continue;
    findings.push_back({"bridged-traffic-filtered",
                        "The packet filter treats traffic within the bridge " + interface.name +
                            " as forwarded: net.bridge.bridge-nf-call-iptables is 1.",
                        "A host there cannot reach its own open port through the external address.",
                        "sysctl -w net.bridge.bridge-nf-call-iptables=0"});
  }
  return findings;
}

}  // namespace lumenctl
