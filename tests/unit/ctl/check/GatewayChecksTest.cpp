#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "lumen/ctl/check/Checks.h"

namespace lumenctl {
namespace {

using Ids = std::vector<std::string>;

Ids idsOf(const Findings& findings) {
  Ids ids;
  for (const Finding& finding : findings) ids.push_back(finding.id);
  return ids;
}

CheckedInterface interface(const std::string& name, Role role, const std::string& address) {
  CheckedInterface used;
  used.name = name;
  used.role = role;
  used.state = LinkState::running;
  if (!address.empty()) used.addresses.push_back(*lumen::Ipv4Address::parse(address));
  return used;
}

/// A router on which nothing is wrong.
Observation healthyRouter() {
  Observation seen;
  seen.interfaces = {interface("br-lan", Role::internal, "192.168.88.1"),
                     interface("wan0", Role::external, "45.45.45.1")};
  seen.kernel = "6.1.0";
  seen.forwards = true;
  seen.defaultRoute = true;
  seen.chains.emplace();
  return seen;
}

TEST(Check, FindsNothingOnAHealthyRouter) {
  EXPECT_EQ(findProblems(healthyRouter()), Findings{});
  EXPECT_EQ(notChecked(healthyRouter()), Ids{});
}

// Also proves [ctl-check].
TEST(Check, ListsFindingsInTheOrderInWhichToFixThem) {
  Observation seen = healthyRouter();
  seen.kernel = "5.10.0";
  seen.gateway.state = GatewayState::off;
  seen.interfaces[0].bridge = true;
  seen.interfaces[0].state = LinkState::down;
  seen.interfaces[1].addresses = {{10, 0, 0, 2}};
  seen.defaultRoute = false;
  seen.interfaces[1].forwards = false;
  seen.bridgedIsFiltered = true;
  seen.chains->push_back({});
  seen.chains->back().dropsAtEnd = true;
  seen.portUsers.push_back({2828, IPPROTO_TCP, 7, "httpd"});
  seen.interfaces[0].silentPorts = {"2828/tcp"};
  seen.rules.emplace_back(lm::message());
  seen.rules.back().stale = true;
  EXPECT_EQ(
      idsOf(findProblems(seen)),
      (Ids{"kernel-too-old", "gateway-off", "interface-down", "external-address-private",
           "no-default-route", "no-forwarding-on-interface", "firewall-drops",
           "bridged-traffic-filtered", "port-in-use", "gateway-not-listening", "stale-ports"}));
}

TEST(Check, SaysThatTheFirewallWasNotChecked) {
  Observation seen = healthyRouter();
  seen.chains.reset();
  EXPECT_EQ(findProblems(seen), Findings{});
  EXPECT_EQ(notChecked(seen), Ids{"the firewall, which takes root to read"});
}

TEST(Check, TakesASilentPlatformForOneFinding) {
  Observation seen;
  seen.kernel = "6.1.0";
  seen.reached = lumen::Failure{"lumend does not answer (/run/x: No such file or directory)"};
  seen.logHint = "Log.";
  EXPECT_EQ(findProblems(seen),
            (Findings{{"no-platform", "lumend does not answer (/run/x: No such file or directory).",
                       "Without it no port is open, and what depends on it was not checked. Log.",
                       "start lumend"}}));
  seen.systemd = true;
  EXPECT_EQ(findProblems(seen).at(0).remedy, "systemctl start lumend");
  seen.reached = {};
  seen.answered = lumen::Failure{"not permitted"};
  EXPECT_EQ(findProblems(seen),
            (Findings{{"platform-refuses", "lumend does not answer: not permitted.",
                       "What depends on it was not checked.", "sudo lumenctl upnp check"}}));
}

// Promise: `upnp check` finds a gateway that is switched off, has crashed, does not answer, is not
// installed or is not set up.
TEST(Check, DistinguishesTheStatesOfTheGateway) {
  for (const auto& [state, ids] : std::vector<std::pair<GatewayState, Ids>>{
           {GatewayState::on, {}},
           {GatewayState::off, {"gateway-off"}},
           {GatewayState::crashed, {"gateway-crashed"}},
           {GatewayState::notInstalled, {"gateway-not-installed"}},
           {GatewayState::notAnswering, {"gateway-silent"}}}) {
    Observation seen = healthyRouter();
    seen.gateway.state = state;
    EXPECT_EQ(idsOf(checkGateway(seen)), ids);
  }
}

// Promise: `upnp check` finds that no interface is internal or none external.
TEST(Check, TellsWhichRoleIsMissing) {
  for (const auto& [without, ids] :
       std::vector<std::pair<Role, Ids>>{{Role::internal, {"no-internal-interface"}},
                                         {Role::external, {"no-external-interface"}}}) {
    Observation seen = healthyRouter();
    std::erase_if(seen.interfaces, [role = without](const auto& i) { return i.role == role; });
    EXPECT_EQ(idsOf(checkGateway(seen)), ids);
    seen.gateway.state = GatewayState::off;
    EXPECT_EQ(idsOf(checkGateway(seen)).front(), "gateway-off");
  }
}

TEST(Check, TakesAGatewayWithoutInterfacesForOneThatIsNotSetUp) {
  for (const auto state : {GatewayState::on, GatewayState::off}) {
    Observation seen = healthyRouter();
    seen.gateway.state = state;
    seen.interfaces.clear();
    EXPECT_EQ(idsOf(checkGateway(seen)), Ids{"not-set-up"});
  }
}

// Promise: `upnp check` finds an interface that is away, switched off or without a link, and an
// internal one without an address or with multicast switched off.
TEST(Check, LooksAtTheLinkOfEachInterface) {
  for (const auto& [state, id] :
       std::vector<std::pair<LinkState, std::string>>{{LinkState::away, "interface-away"},
                                                      {LinkState::down, "interface-down"},
                                                      {LinkState::noLink, "interface-no-link"}}) {
    for (const Role role : {Role::internal, Role::external}) {
      CheckedInterface used = interface("eth0", role, "");
      used.state = state;
      EXPECT_EQ(idsOf(checkLinks({used})), Ids{id});
    }
  }
}

TEST(Check, SaysWhoIsAffectedByALink) {
  CheckedInterface used = interface("eth0", Role::internal, "");
  used.state = LinkState::down;
  EXPECT_EQ(checkLinks({used}),
            (Findings{{"interface-down", "eth0, an internal interface, is switched off.",
                       "Its hosts find no gateway.", "ip link set eth0 up"}}));
  used.role = Role::external;
  EXPECT_EQ(checkLinks({used}),
            (Findings{{"interface-down", "eth0, the external interface, is switched off.",
                       "No port can be opened on it.", "ip link set eth0 up"}}));
}

TEST(Check, MissesAnAddressOnAnInternalLinkThatRuns) {
  EXPECT_EQ(idsOf(checkLinks({interface("br-lan", Role::internal, "")})),
            Ids{"internal-address-none"});
  EXPECT_EQ(idsOf(checkLinks({interface("wan0", Role::external, "")})), Ids{});
}

TEST(Check, MissesMulticastOnInternalLinksOnly) {
  CheckedInterface used = interface("br-lan", Role::internal, "192.168.88.1");
  used.multicast = false;
  EXPECT_EQ(idsOf(checkLinks({used})), Ids{"no-multicast"});
  used.role = Role::external;
  EXPECT_EQ(idsOf(checkLinks({used})), Ids{});
}

// Promise [ctl-check-address]: `upnp check` finds an external interface without an address, or with
// none but private (RFC 1918), carrier-grade (100.64.0.0/10) or link-local ones.
TEST(Check, KnowsWhichAddressesTheInternetReaches) {
  for (const auto& [address, ids] : std::vector<std::pair<std::string, Ids>>{
           {"45.45.45.1", {}},
           {"9.255.255.255", {}},
           {"10.0.0.0", {"external-address-private"}},
           {"10.255.255.255", {"external-address-private"}},
           {"11.0.0.0", {}},
           {"172.15.255.255", {}},
           {"172.16.0.0", {"external-address-private"}},
           {"172.31.255.255", {"external-address-private"}},
           {"172.32.0.0", {}},
           {"192.167.255.255", {}},
           {"192.168.0.0", {"external-address-private"}},
           {"192.168.255.255", {"external-address-private"}},
           {"192.169.0.0", {}},
           {"100.63.255.255", {}},
           {"100.64.0.0", {"external-address-carrier-grade"}},
           {"100.127.255.255", {"external-address-carrier-grade"}},
           {"100.128.0.0", {}},
           {"169.254.0.1", {"external-address-link-local"}},
           {"169.253.0.1", {}},
           {"", {"external-address-none"}}}) {
    EXPECT_EQ(idsOf(checkExternalAddress({interface("wan0", Role::external, address)})), ids)
        << address;
  }
}

// Also proves [ctl-check-address].
TEST(Check, AcceptsOnePublicAddressAmongOthers) {
  CheckedInterface used = interface("wan0", Role::external, "192.168.1.2");
  used.addresses.emplace_back(45, 45, 45, 1);
  EXPECT_EQ(checkExternalAddress({used}), Findings{});
}

// Also proves [ctl-check-address].
TEST(Check, LooksAtTheAddressesOfExternalLinksThatRun) {
  EXPECT_EQ(checkExternalAddress({interface("br-lan", Role::internal, "192.168.88.1")}),
            Findings{});
  CheckedInterface used = interface("wan0", Role::external, "192.168.1.2");
  used.state = LinkState::noLink;
  EXPECT_EQ(checkExternalAddress({used}), Findings{});
}

/// A rule for 8080/tcp on 45.45.45.1.
NatRule rule(bool stale, uint16_t port = 8080, uint32_t protocol = IPPROTO_TCP) {
  NatRule result{lm::message()};
  result.external = {{45, 45, 45, 1}, port};
  result.protocol = protocol;
  result.stale = stale;
  return result;
}

// Promise: `upnp check` lists the open ports whose address has left the router, and no longer once
// they are closed.
TEST(Check, CountsOnlyPortsThatAreStaleAndNotClosed) {
  NatRule closed = rule(true);
  closed.closed = true;
  NatRule disabled = rule(true);
  disabled.disabled = true;
  EXPECT_EQ(checkStalePorts({rule(false), closed, disabled}), Findings{});
  EXPECT_EQ(idsOf(checkStalePorts({rule(false), rule(true)})), Ids{"stale-ports"});
}

TEST(Check, NamesFiveStalePortsAndCountsTheOthers) {
  std::vector<NatRule> rules;
  for (uint16_t port = 2000; port < 2007; ++port) rules.push_back(rule(true, port, IPPROTO_UDP));
  rules.back().external.address = {45, 45, 45, 2};
  EXPECT_EQ(checkStalePorts(rules).front().what,
            "This router no longer has the address of some open ports (45.45.45.1, 45.45.45.2): "
            "2000/udp, 2001/udp, 2002/udp, 2003/udp, 2004/udp and 2 more.");
}

GatewayFile file(GatewayFile::State state, bool packaged = true) {
  return {"/etc/lumen/services/upnp.ini", state, "unknown setting \"speed\"", packaged, true};
}

// Promise [ctl-check-service]: `upnp check` of a platform that knows no gateway tells a service
// file that is missing from one that is wrong, one that is now right, and a missing user, and
// names for each what brings the gateway back.
TEST(Check, SaysWhyThePlatformKnowsNoGateway) {
  using State = GatewayFile::State;
  for (const auto& [gatewayFile, id, remedy] :
       std::vector<std::tuple<GatewayFile, std::string, std::string>>{
           {file(State::missing), "gateway-not-installed",
            "where the file of the package lies: apt-get install --reinstall --option "
            "Dpkg::Options::=--force-confmiss ./palinode-igd_*.deb && systemctl restart lumend"},
           {file(State::userMissing), "gateway-user-missing",
            "systemd-sysusers palinode.conf && systemd-tmpfiles --create palinode.conf && chown -R "
            "palinode: /var/lib/lumen/upnp /var/lib/lumen/upnpm && systemctl restart lumend"},
           {file(State::userMissing, false), "gateway-user-missing",
            "systemd-sysusers palinode.conf && chown -R palinode: /lumen/store/upnp "
            "/lumen/store/upnpm, then start lumend again"},
           {file(State::wrong), "gateway-file-wrong",
            "correct the file, then systemctl restart lumend"},
           {file(State::right), "gateway-file-not-read",
            "systemctl restart lumend; when that does not help, journalctl -u lumend shows why "
            "lumend rejects it"}}) {
    Observation seen = healthyRouter();
    seen.gateway.state = GatewayState::notInstalled;
    seen.gatewayFile = gatewayFile;
    const Findings findings = checkGateway(seen);
    ASSERT_EQ(idsOf(findings), Ids{id});
    EXPECT_EQ(findings.front().remedy, remedy);
  }
}

// Promise: `upnp check` says when the gateway's service file does not let it send to hosts, as
// after an upgrade that kept an old file.
TEST(Check, FindsAServiceFileThatFencesTheGatewayIn) {
  Observation seen = healthyRouter();
  seen.gatewayFile = file(GatewayFile::State::right);
  EXPECT_EQ(checkGateway(seen), Findings{});
  seen.gatewayFile = file(GatewayFile::State::fenced);
  const Findings findings = checkGateway(seen);
  ASSERT_EQ(idsOf(findings), Ids{"gateway-fenced"});
  EXPECT_EQ(findings.front().remedy,
            "add the line \"network = internal\" to it, then systemctl restart lumend");
}

// Promise: `upnp check` finds a service file that does not let the gateway open ports.
TEST(Check, FindsAServiceFileThatLetsTheGatewayOpenNoPort) {
  Observation seen = healthyRouter();
  seen.gatewayFile = file(GatewayFile::State::right);
  seen.gatewayFile.opensPorts = false;
  const Findings findings = checkGateway(seen);
  ASSERT_EQ(idsOf(findings), Ids{"gateway-opens-no-ports"});
  EXPECT_EQ(findings.front().remedy,
            "add the line \"ports = yes\" to it, then systemctl restart lumend");
  seen.gatewayFile.state = GatewayFile::State::fenced;
  EXPECT_EQ(idsOf(checkGateway(seen)), (Ids{"gateway-fenced", "gateway-opens-no-ports"}));
}

/// Whether the clients listed are taken for none of 192.168.88.0/24, this router's 192.168.88.1.
bool excludesTheLan(const std::string& clients,
                    lumen::Ipv4Network network = {{192, 168, 88, 0}, 24}) {
  CheckedInterface lan = interface("br-lan", Role::internal, "192.168.88.1");
  lan.networks = {{"br-lan", network}};
  NatPolicy policy{lm::message()};
  policy.maxRules = policy.maxRulesPerClient = 1;
  policy.remotesPossible = true;
  policy.internalClients = clients;
  return idsOf(checkPolicy(policy, {lan})) == Ids{"policy-excludes-network"};
}

TEST(CheckPolicy, WarnsOfPortsIntoEveryNetwork) {
  NatPolicy policy{lm::message()};
  policy.maxRules = policy.maxRulesPerClient = 1;
  policy.remotesPossible = true;
  policy.internalClients = "connected, 10.0.0.0/8";
  const Findings findings = checkPolicy(policy, {});
  ASSERT_EQ(idsOf(findings), Ids{"policy-reaches-all-networks"});
  EXPECT_EQ(findings.front().remedy, "lumenctl nat policy set internal-clients=internal");
}

TEST(CheckPolicy, KnowsWhichListsHaveNoHostOfTheNetwork) {
  for (const auto& [clients, excludes, reason] :
       std::vector<std::tuple<std::string, bool, const char*>>{
           {"internal", false, "every internal network"},
           {"10.0.0.0/8, internal", false, "every internal network too"},
           {"br-lan", false, "its interface"},
           {"guest0, br-lan, 10.0.0.0/8", false, "its interface too"},
           {"guest0", true, "another interface"},
           {"br-lan2", true, "one with a longer name"},
           {"192.168.88.0/24", false, "the network itself"},
           {"192.168.0.0/16", false, "a larger one"},
           {"0.0.0.0/0", false, "all"},
           {"192.168.88.128/25", false, "half of it"},
           {"10.0.0.0/8, 192.168.88.7", false, "one host"},
           {"192.168.88.0/31", true, "its own address and the router"},
           {"192.168.88.0/30", false, "two hosts more"},
           {"10.0.0.0/8", true, "another network"},
           {"192.168.89.0/24", true, "the next one"},
           {"192.168.87.0/24", true, "the one before"},
           {"192.168.88.1", true, "the router only"},
           {"192.168.88.0", true, "the network's own address"},
           {"192.168.88.255", true, "its broadcast address"},
           {"192.168.88.1, 192.168.88.1", true, "the router twice"},
           {"10.0.0.0/8, ::1", false, "what it cannot read"}}) {
    EXPECT_EQ(excludesTheLan(clients), excludes) << clients << ": " << reason;
  }
  EXPECT_FALSE(excludesTheLan("192.168.88.0", {{192, 168, 88, 0}, 31}))
      << "both addresses of a network of two are hosts";
}

TEST(CheckPolicy, LooksAtInternalInterfacesWhoseNetworksAreKnown) {
  NatPolicy policy{lm::message()};
  policy.maxRules = policy.maxRulesPerClient = 1;
  policy.remotesPossible = true;
  policy.internalClients = "10.0.0.0/8";
  EXPECT_EQ(checkPolicy(policy, healthyRouter().interfaces), Findings{});
  EXPECT_EQ(checkPolicy(std::nullopt, healthyRouter().interfaces), Findings{});
  CheckedInterface wan = interface("wan0", Role::external, "45.45.45.1");
  wan.networks = {{"wan0", {{45, 45, 45, 0}, 24}}};
  EXPECT_EQ(checkPolicy(policy, {wan}), Findings{});
}

TEST(CheckPolicy, NamesCommandsThatCanFollowEachOther) {
  NatPolicy policy{lm::message()};
  policy.maxRules = policy.maxRulesPerClient = 1;
  policy.remotesPossible = true;
  policy.internalClients = "10.0.0.0/8";
  CheckedInterface lan = interface("br-lan", Role::internal, "192.168.88.1");
  lan.networks = {{"br-lan", {{192, 168, 88, 0}, 24}}};
  CheckedInterface guest = interface("br-guest", Role::internal, "192.168.99.1");
  guest.networks = {{"br-guest", {{192, 168, 99, 0}, 24}}};
  const Findings findings = checkPolicy(policy, {lan, guest});
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[1].remedy,
            "lumenctl nat policy set "
            "internal-clients=10.0.0.0/8,br-lan,br-guest");
}

}  // namespace
}  // namespace lumenctl
