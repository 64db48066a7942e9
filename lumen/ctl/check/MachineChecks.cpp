#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include "lumen/ctl/check/Checks.h"
#include "lumen/values/KernelVersion.h"

namespace lumenctl {

namespace {

/// How a command names an interface. A name that a shell, sed or nft may misread is left to the
/// administrator.
std::string inCommand(const std::string& link) {
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  const bool plain = link.find_first_not_of(letters + "0123456789._-") == std::string::npos &&
                     link.find_first_of(letters) == 0;
  return plain ? link : "EXTERNAL";
}

/// `before`, each of the names and `after`, for each name; with `between` between them.
std::string forEach(const std::vector<std::string>& names, const std::string& before,
                    const std::string& after, const std::string& between) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : between) + before + name + after;
  }
  return text;
}

/// The commands that let open ports pass which packets come to by these interfaces.
std::string rulesFor(const ForwardChain& chain, const std::vector<std::string>& links) {
  const std::string match = " -m conntrack --ctstate DNAT -j ACCEPT";
  switch (chain.manager) {
    case ForwardChain::Manager::ufw:
      // What the commands of ufw write cannot look at the state; the file is of iptables-restore.
      return "sed -i -e '/^[*]filter/,/^COMMIT/{" +
             forEach(links, "/^COMMIT/i -A ufw-before-forward -i ", match, "' -e '") +
             "' -e '}' /etc/ufw/before.rules && ufw reload";
    case ForwardChain::Manager::firewalld:
      return "set StrictForwardPorts=no in /etc/firewalld/firewalld.conf, then firewall-cmd "
             "--reload";
    case ForwardChain::Manager::none:
      break;
  }
  switch (chain.tool) {
    case ForwardChain::Tool::iptables:
      return forEach(links, "iptables -I FORWARD -i ", match, " && ");
    case ForwardChain::Tool::iptablesLegacy:
      return forEach(links, "iptables-legacy -I FORWARD -i ", match, " && ");
    case ForwardChain::Tool::nft:
      break;
  }
  const std::string names = forEach(links, "", "", ", ");
  return "nft insert rule " + chain.family + " " + chain.table + " " + chain.name + " iifname " +
         (links.size() == 1 ? names : "{ " + names + " }") + " ct status dnat accept";
}

/// The commands that let pinholes pass which packets come to by these interfaces.
std::string pinholeRulesFor(const ForwardChain& chain, const std::vector<std::string>& links) {
  if (chain.tool != ForwardChain::Tool::nft) {
    return forEach(links, "ip6tables -I FORWARD -i ", " -m connlabel --label 125 -j ACCEPT",
                   " && ");
  }
  const std::string names = forEach(links, "", "", ", ");
  return "nft insert rule " + chain.family + " " + chain.table + " " + chain.name + " iifname " +
         (links.size() == 1 ? names : "{ " + names + " }") + " ct label 125 accept";
}

std::string nameOf(const ForwardChain& chain) {
  if (chain.tool == ForwardChain::Tool::nft) {
    return chain.name + " of the nftables table " + chain.family + " " + chain.table;
  }
  return chain.name + (chain.family == "ip6"                        ? " of ip6tables"
                       : chain.tool == ForwardChain::Tool::iptables ? " of iptables"
                                                                    : " of iptables-legacy");
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

Findings checkFirewall(const std::vector<ForwardChain>& chains,
                       const std::vector<CheckedInterface>& interfaces) {
  std::vector<std::string> external;
  for (const CheckedInterface& interface : interfaces) {
    if (interface.role == Role::external) external.push_back(interface.name);
  }
  if (external.empty()) external.emplace_back();
  Findings findings;
  for (const ForwardChain& chain : chains) {
    std::vector<std::string> stopped;
    for (const std::string& link : external) {
      if (chain.stopsOpenPorts(link)) stopped.push_back(inCommand(link));
    }
    if (stopped.empty()) continue;
    findings.push_back(
        {"firewall-drops",
         "The firewall drops forwarded packets, and does not let those of open ports "
         "pass (chain " +
             nameOf(chain) + ").",
         "What arrives at an open port may not reach its host.", rulesFor(chain, stopped)});
  }
  return findings;
}

Findings checkIpv6Firewall(const std::vector<ForwardChain>& chains,
                           const std::vector<CheckedInterface>& interfaces,
                           const std::optional<PcpReport>& pcp) {
  if (!pcp || !pcp->pinholes.problem.empty()) return {};
  std::vector<std::string> external;
  for (const CheckedInterface& interface : interfaces) {
    if (interface.role == Role::external) external.push_back(interface.name);
  }
  if (external.empty()) external.emplace_back();
  Findings findings;
  for (const ForwardChain& chain : chains) {
    std::vector<std::string> stopped;
    for (const std::string& link : external) {
      if (chain.stopsPinholes(link)) stopped.push_back(inCommand(link));
    }
    if (stopped.empty()) continue;
    findings.push_back({"firewall-drops-pinholes",
                        "The firewall drops forwarded IPv6 packets, and does not let those of "
                        "pinholes pass (chain " +
                            nameOf(chain) + ").",
                        "What arrives at a pinhole may not reach its host.",
                        pinholeRulesFor(chain, stopped)});
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
