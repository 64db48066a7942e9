#include <netinet/in.h>

#include <algorithm>

#include "lumen/ctl/check/Checks.h"
#include "lumen/ctl/router/Networks.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

bool hasRole(const std::vector<CheckedInterface>& interfaces, Role role) {
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [role](const CheckedInterface& interface) { return interface.role == role; });
}

/// "wan0, the external interface,"
std::string called(const CheckedInterface& interface) {
  const char* const article = interface.role == Role::external ? "the " : "an ";
  return interface.name + ", " + article + roleName(interface.role) + " interface,";
}

std::string withoutIt(const CheckedInterface& interface) {
  return interface.role == Role::external ? "No port can be opened on it."
                                          : "Its hosts find no gateway.";
}

Findings checkRoles(const std::vector<CheckedInterface>& interfaces) {
  const bool external = hasRole(interfaces, Role::external);
  const bool internal = hasRole(interfaces, Role::internal);
  if (!external && !internal) {
    return {{"not-set-up", "The gateway is not set up: it uses no interface.",
             "No host finds a gateway, and no port can be opened.", "lumenctl upnp setup"}};
  }
  if (!internal) {
    return {{"no-internal-interface", "The gateway has no internal interface.", "No host finds it.",
             "lumenctl upnp setup"}};
  }
  if (!external) {
    return {{"no-external-interface", "The gateway has no external interface.",
             "There is no address that ports can be opened on.", "lumenctl upnp setup"}};
  }
  return {};
}

std::string restartOf(const GatewayFile& file) {
  return file.packaged ? "systemctl restart lumend" : "start lumend again";
}

/// What restores a service file that is missing.
std::string fileRemedy(const GatewayFile& file, const std::string& restart) {
  // dpkg does not restore a deleted configuration file unless it is told to.
  if (file.packaged) {
    return "where the file of the package lies: apt-get install --reinstall --option "
           "Dpkg::Options::=--force-confmiss ./palinode-igd_*.deb && " +
           restart;
  }
  return "where Palinode was built: cp build/etc/services/upnp.ini " + file.path + ", then " +
         restart;
}

/// What makes the users that the installation makes, who then own the stores.
std::string userRemedy(const GatewayFile& file, const std::string& restart) {
  if (file.packaged) {
    return "systemd-sysusers palinode.conf && systemd-tmpfiles --create palinode.conf && chown -R "
           "palinode: /var/lib/lumen/upnp /var/lib/lumen/upnpm && " +
           restart;
  }
  return "systemd-sysusers palinode.conf && chown -R palinode: /lumen/store/upnp "
         "/lumen/store/upnpm, then " +
         restart;
}

Finding notInstalled(const GatewayFile& file, const std::string& consequence) {
  const std::string restart = restartOf(file);
  const std::string subject = "lumend knows no gateway: ";
  switch (file.state) {
    case GatewayFile::State::missing:
      return {"gateway-not-installed", subject + "its service file " + file.path + " is missing.",
              consequence, fileRemedy(file, restart)};
    case GatewayFile::State::userMissing:
      return {"gateway-user-missing", subject + "its user palinode does not exist.", consequence,
              userRemedy(file, restart)};
    case GatewayFile::State::wrong:
      return {"gateway-file-wrong",
              subject + "its service file " + file.path + " is wrong: " + file.error + ".",
              consequence, "correct the file, then " + restart};
    case GatewayFile::State::fenced:
    case GatewayFile::State::right:
      break;
  }
  return {"gateway-file-not-read",
          subject + "it has not read the service file " + file.path + ", which is correct now.",
          consequence,
          restart + "; when that does not help, journalctl -u lumend shows why lumend rejects it"};
}

/// As after an upgrade that kept the service file of a version without the setting.
Finding fenced(const GatewayFile& file, const std::string& consequence) {
  return {"gateway-fenced",
          "The service file " + file.path + " does not let the gateway send to hosts.", consequence,
          "add the line \"network = internal\" to it, then " + restartOf(file)};
}

/// The same for opening ports.
Finding portless(const GatewayFile& file) {
  return {"gateway-opens-no-ports",
          "The service file " + file.path + " does not let the gateway open ports.",
          "Every program that asks for a port is refused.",
          "add the line \"ports = yes\" to it, then " + restartOf(file)};
}

/// An external address that hosts on the Internet cannot reach.
Finding unreachable(const std::string& interface, lumen::Ipv4Address address) {
  const std::string subject = "The external address " + address.text() + " of " + interface;
  if (isCarrierGrade(address)) {
    return {"external-address-carrier-grade",
            subject + " is inside the provider's own NAT (carrier-grade NAT).",
            "No host on the Internet can reach a port that is opened here.",
            "ask the provider for a public IPv4 address"};
  }
  if (isLinkLocal(address)) {
    return {"external-address-link-local",
            subject + " is link-local: " + interface +
                " gave it to itself, because no DHCP server answered.",
            "No host on the Internet can reach a port that is opened here.",
            "see why no DHCP server answers on " + interface};
  }
  return {"external-address-private",
          subject + " is private: another router stands between this one and the Internet.",
          "No host on the Internet can reach a port that is opened here, and many programs do not "
          "even try to open one.",
          "on that router, forward all ports to " + address.text() +
              ", or let it pass on its public address (bridge mode)"};
}

}  // namespace

Findings checkPlatform(const Observation& seen) {
  if (!seen.reached) {
    return {{"no-platform", seen.reached.why() + ".",
             "Without it no port is open, and what depends on it was not checked. " + seen.logHint,
             seen.systemd ? "systemctl start lumend" : "start lumend"}};
  }
  if (seen.answered) return {};
  return {{"platform-refuses", "lumend does not answer: " + seen.answered.why() + ".",
           "What depends on it was not checked.", "sudo lumenctl upnp check"}};
}

Findings checkGateway(const Observation& seen) {
  if (!seen.reached || !seen.answered) return {};
  const char* const noGateway = "No host finds a gateway, and no port can be opened.";
  switch (seen.gateway.state) {
    case GatewayState::notInstalled:
      return {notInstalled(seen.gatewayFile, noGateway)};
    case GatewayState::crashed:
      return {{"gateway-crashed", "The gateway has crashed; lumend will start it again.", noGateway,
               "journalctl -u lumend, which shows why"}};
    case GatewayState::notAnswering:
      return {{"gateway-silent",
               "The gateway does not answer: " +
                   (seen.gateway.answer ? seen.gateway.answer->why() : "") + ".",
               noGateway, "systemctl restart lumend, which closes the open ports"}};
    case GatewayState::starting:
    case GatewayState::notReachable:
    case GatewayState::off:
    case GatewayState::on:
      break;
  }
  Findings findings = checkRoles(seen.interfaces);
  if (!seen.gatewayFile.opensPorts) {
    findings.insert(findings.begin(), portless(seen.gatewayFile));
  }
  if (seen.gatewayFile.state == GatewayFile::State::fenced) {
    findings.insert(findings.begin(), fenced(seen.gatewayFile, noGateway));
  }
  if (seen.gateway.state == GatewayState::off && !seen.interfaces.empty()) {
    findings.insert(findings.begin(), {"gateway-off", "The gateway is switched off.", noGateway,
                                       "lumenctl upnp settings set enabled=on"});
  }
  return findings;
}

Findings checkLinks(const std::vector<CheckedInterface>& interfaces) {
  Findings findings;
  for (const CheckedInterface& interface : interfaces) {
    if (interface.state == LinkState::away) {
      findings.push_back({"interface-away",
                          called(interface) + " is away: there is no link of that name.",
                          withoutIt(interface),
                          "see why it is not there, or give another one its role: lumenctl upnp "
                          "setup"});
    } else if (interface.state == LinkState::down) {
      findings.push_back({"interface-down", called(interface) + " is switched off.",
                          withoutIt(interface), "ip link set " + interface.name + " up"});
    } else if (interface.state == LinkState::noLink) {
      findings.push_back({"interface-no-link", called(interface) + " has no link.",
                          withoutIt(interface),
                          interface.bridge ? "connect one of the bridge's ports: bridge link"
                                           : "see whether its cable is plugged in at both ends"});
    } else if (interface.role == Role::internal && interface.addresses.empty()) {
      findings.push_back({"internal-address-none", called(interface) + " has no IPv4 address.",
                          withoutIt(interface), "ip address add ADDRESS/24 dev " + interface.name});
    }
    if (interface.role == Role::internal && !interface.multicast) {
      findings.push_back({"no-multicast", called(interface) + " has multicast switched off.",
                          "Its hosts may not find the gateway, which they search for by multicast.",
                          "ip link set " + interface.name + " multicast on"});
    }
  }
  return findings;
}

Findings checkSockets(const std::vector<CheckedInterface>& interfaces) {
  Findings findings;
  for (const CheckedInterface& interface : interfaces) {
    if (interface.silentPorts.empty()) continue;
    findings.push_back({"gateway-not-listening",
                        "The gateway does not listen at " + joined(interface.silentPorts) + " on " +
                            interface.name + ".",
                        "Its hosts cannot reach the gateway, which tries to listen only when it "
                        "starts there (journalctl -t palinode-igd shows why it failed).",
                        "lumenctl upnp interface set " + interface.name + " --enable"});
  }
  return findings;
}

Findings checkWebPage(const std::optional<WebPage>& page) {
  if (!page || page->problem.empty()) return {};
  return {{"web-page-not-served", "The status page is not served at " + page->problem + ".",
           "Browsers of these hosts do not get it. It is tried again every few seconds.",
           "see what has the port: ss -ltnp sport = :" + std::to_string(page->port) +
               "; or take another: lumenctl web on --port 8081"}};
}

Findings checkExternalAddress(const std::vector<CheckedInterface>& interfaces) {
  Findings findings;
  for (const CheckedInterface& interface : interfaces) {
    if (interface.role != Role::external || interface.state != LinkState::running) continue;
    if (interface.addresses.empty()) {
      findings.push_back(
          {"external-address-none", called(interface) + " has no IPv4 address.",
           "There is no address that ports can be opened on.",
           "see whether its DHCP client or PPP is running: ip address show " + interface.name});
      continue;
    }
    const bool reachable = std::any_of(
        interface.addresses.begin(), interface.addresses.end(), [](lumen::Ipv4Address address) {
          return !isPrivate(address) && !isCarrierGrade(address) && !isLinkLocal(address);
        });
    if (!reachable) findings.push_back(unreachable(interface.name, interface.addresses.front()));
  }
  return findings;
}

Findings checkStalePorts(const std::vector<NatRule>& rules) {
  constexpr size_t shownAtMost = 5;
  std::vector<std::string> ports;
  std::vector<std::string> addresses;
  for (const NatRule& rule : rules) {
    if (rule.state() != PortState::stale) continue;
    ports.push_back(std::to_string(rule.external.port) + "/" + rule.protocolName());
    const std::string address = rule.external.address.text();
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
      addresses.push_back(address);
    }
  }
  if (ports.empty()) return {};
  const size_t count = ports.size();
  ports.resize(std::min(count, shownAtMost));
  std::string list = joined(ports);
  if (count > shownAtMost) list += " and " + std::to_string(count - shownAtMost) + " more";
  return {{"stale-ports",
           "This router no longer has the address of some open ports (" + joined(addresses) +
               "): " + list + ".",
           "No host reaches them until the programs that opened them close and open them again, or "
           "the address is back.",
           "restart these programs; for ports that stay, lumenctl upnp settings set enabled=off, "
           "then enabled=on, closes all"}};
}

}  // namespace lumenctl
