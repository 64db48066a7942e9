#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "lumen/ctl/check/Checks.h"

namespace lumenctl {
namespace {

CheckedInterface interface(const std::string& name, Role role, std::optional<bool> forwards) {
  CheckedInterface used;
  used.name = name;
  used.role = role;
  used.state = LinkState::running;
  used.addresses = {{45, 45, 45, 1}};
  used.forwards = forwards;
  return used;
}

// Promise [ctl-check-kernel]: `upnp check` finds a kernel older than 5.12.
TEST(CheckKernel, WantsFiveTwelve) {
  for (const std::string release :
       {"5.12", "5.12.0-rc1", "5.100.1", "6.0", "6.1.0-18-amd64", "10.2", "", "unknown", "5"}) {
    EXPECT_EQ(checkKernel(release), Findings{}) << release;
  }
  for (const std::string release : {"5.11.22", "5.10.0-28-amd64", "5.2", "4.19.0", "4.99"}) {
    EXPECT_EQ(checkKernel(release),
              (Findings{{"kernel-too-old", "The kernel, " + release + ", is older than 5.12.",
                         "lumend does not start: the kernel cannot keep other programs out of its "
                         "table of open ports.",
                         "install a newer kernel and start it"}}));
  }
}

/// The ids of what is found when the switches are so: of all, of wan0 and of br-lan.
std::string forwarding(std::optional<bool> all, std::optional<bool> wan, std::optional<bool> lan) {
  std::string ids;
  for (const Finding& finding : checkForwarding(all, {interface("wan0", Role::external, wan),
                                                      interface("br-lan", Role::internal, lan)})) {
    ids += finding.id + " ";
  }
  return ids;
}

// Promise: `upnp check` finds that the kernel does not forward what arrives on an interface that
// the gateway uses, and names the switch for all of them when that is off.
TEST(CheckForwarding, LooksAtEachInterface) {
  EXPECT_EQ(forwarding(true, true, true), "");
  EXPECT_EQ(forwarding(true, false, true), "no-forwarding-on-interface ");
  EXPECT_EQ(forwarding(true, true, false), "no-forwarding-on-interface ");
  EXPECT_EQ(forwarding(true, false, false),
            "no-forwarding-on-interface no-forwarding-on-interface ");
}

TEST(CheckForwarding, NamesTheSwitchForAllWhenThatIsOff) {
  EXPECT_EQ(forwarding(false, false, false), "no-forwarding ");
  EXPECT_EQ(forwarding(false, false, true), "no-forwarding ");
}

TEST(CheckForwarding, IgnoresTheSwitchForAllWhenEachInterfaceForwards) {
  EXPECT_EQ(forwarding(false, true, true), "");
}

TEST(CheckForwarding, SaysNothingAboutUnknownSwitches) {
  EXPECT_EQ(forwarding(std::nullopt, std::nullopt, std::nullopt), "");
  EXPECT_EQ(forwarding(false, std::nullopt, std::nullopt), "");
  EXPECT_EQ(checkForwarding(std::nullopt, {}), Findings{});
}

TEST(CheckForwarding, LooksAtTheSwitchForAllWhenThereIsNoInterface) {
  EXPECT_EQ(checkForwarding(true, {}), Findings{});
  EXPECT_EQ(checkForwarding(false, {}).size(), 1U);
}

TEST(CheckForwarding, WritesANameWithADotSoThatSysctlTakesIt) {
  EXPECT_EQ(checkForwarding(true, {interface("eth0.7", Role::external, false)}),
            (Findings{{"no-forwarding-on-interface",
                       "Packets that arrive on eth0.7 are not forwarded: "
                       "net/ipv4/conf/eth0.7/forwarding is 0.",
                       "What arrives there for an open port does not reach its host.",
                       "sysctl -w net/ipv4/conf/eth0.7/forwarding=1"}}));
}

// Promise: `upnp check` finds that the main routing table has no default route.
TEST(CheckDefaultRoute, IsMissedWhileAnExternalInterfaceWorks) {
  CheckedInterface wan = interface("wan0", Role::external, true);
  EXPECT_EQ(checkDefaultRoute(true, {wan}), Findings{});
  EXPECT_EQ(checkDefaultRoute(false, {wan}).size(), 1U);
  EXPECT_EQ(checkDefaultRoute(false, {}), Findings{});
  EXPECT_EQ(checkDefaultRoute(false, {interface("br-lan", Role::internal, true)}), Findings{});
  wan.addresses.clear();
  EXPECT_EQ(checkDefaultRoute(false, {wan}), Findings{}) << "it has no address yet";
  wan = interface("wan0", Role::external, true);
  wan.state = LinkState::away;
  EXPECT_EQ(checkDefaultRoute(false, {wan}), Findings{}) << "it has no routes then";
}

/// Which interfaces the check names for a chain of this tool that drops all, on a router with these
/// external interfaces.
std::string ruleFor(const ForwardChain& chain, const std::vector<std::string>& external) {
  std::vector<CheckedInterface> interfaces = {interface("br-lan", Role::internal, true)};
  for (const std::string& name : external) {
    interfaces.push_back(interface(name, Role::external, true));
  }
  const Findings findings = checkFirewall({chain}, interfaces);
  return findings.empty() ? "" : findings.front().remedy;
}

ForwardChain droppingChain(ForwardChain::Tool tool) {
  ForwardChain chain;
  chain.tool = tool;
  chain.family = "inet";
  chain.table = "filter";
  chain.name = "forward";
  chain.dropsAtEnd = true;
  return chain;
}

// Promise: The rules that `upnp check` names for a firewall let in what comes by the external
// interfaces only.
TEST(CheckFirewall, NamesEachExternalInterfaceThatTheChainStops) {
  using Tool = ForwardChain::Tool;
  const std::string match = " -m conntrack --ctstate DNAT -j ACCEPT";
  ForwardChain chain = droppingChain(Tool::nft);
  EXPECT_EQ(ruleFor(chain, {"wan0", "eth0.7"}),
            "nft insert rule inet filter forward iifname { wan0, eth0.7 } ct status dnat accept");
  EXPECT_EQ(ruleFor(droppingChain(Tool::iptables), {"wan0", "ppp0"}),
            "iptables -I FORWARD -i wan0" + match + " && iptables -I FORWARD -i ppp0" + match);
  chain.rules = {{RuleEffect::acceptsOpenPorts, {std::string("wan0") + '\0'}}};
  EXPECT_EQ(ruleFor(chain, {"wan0"}), "");
  EXPECT_EQ(ruleFor(chain, {"wan0", "ppp0"}),
            "nft insert rule inet filter forward iifname ppp0 ct status dnat accept");
  EXPECT_EQ(ruleFor(chain, {}), "") << "what is external is not known";
  chain.rules = {{RuleEffect::acceptsOpenPorts, {}}};
  EXPECT_EQ(ruleFor(chain, {"wan0", "ppp0"}), "") << "it names no interface";
}

// Promise: `upnp check` writes no name of an interface into a command that a shell could misread.
TEST(CheckFirewall, NamesNoInterfaceThatAShellCouldMisread) {
  const ForwardChain chain = droppingChain(ForwardChain::Tool::nft);
  for (const std::string name : {"$(reboot)", "a;b", "6in4", "-i", "a'b", "ppp+", "a\\n"}) {
    EXPECT_EQ(ruleFor(chain, {name}),
              "nft insert rule inet filter forward iifname EXTERNAL ct status dnat accept")
        << name;
  }
  EXPECT_EQ(ruleFor(chain, {}),
            "nft insert rule inet filter forward iifname EXTERNAL ct status dnat accept")
      << "no external interface yet";
}

// Promise [ctl-check-firewall]: `upnp check` finds each firewall that drops forwarded packets and
// has no rule for those of open ports, of nftables, iptables and legacy iptables, and the rule that
// it names lets them pass.
TEST(CheckFirewall, NamesTheRuleForEachTool) {
  using Tool = ForwardChain::Tool;
  const std::vector<CheckedInterface> router = {interface("wan0", Role::external, true)};
  for (const auto& [tool, chain, remedy] : std::vector<std::tuple<Tool, std::string, std::string>>{
           {Tool::nft, "forward of the nftables table inet filter",
            "nft insert rule inet filter forward iifname wan0 ct status dnat accept"},
           {Tool::iptables, "forward of iptables",
            "iptables -I FORWARD -i wan0 -m conntrack --ctstate DNAT -j ACCEPT"},
           {Tool::iptablesLegacy, "forward of iptables-legacy",
            "iptables-legacy -I FORWARD -i wan0 -m conntrack --ctstate DNAT -j ACCEPT"}}) {
    ForwardChain stops;
    stops.tool = tool;
    stops.family = "inet";
    stops.table = "filter";
    stops.name = "forward";
    EXPECT_EQ(checkFirewall({stops}, router), Findings{}) << "it drops nothing";
    stops.dropsAtEnd = true;
    EXPECT_EQ(checkFirewall({stops, ForwardChain()}, router),
              (Findings{{"firewall-drops",
                         "The firewall drops forwarded packets, and does not let those of open "
                         "ports pass (chain " +
                             chain + ").",
                         "What arrives at an open port may not reach its host.", remedy}}));
  }
}

// Promise [ctl-check-reload]: `upnp check` names, where ufw or firewalld keeps the rules, what
// outlives a reload of theirs.
TEST(CheckFirewall, NamesWhatOutlivesAReloadOfUfwAndFirewalld) {
  ForwardChain stops;
  stops.dropsAtEnd = true;
  stops.manager = ForwardChain::Manager::ufw;
  for (const auto tool : {ForwardChain::Tool::iptables, ForwardChain::Tool::iptablesLegacy}) {
    stops.tool = tool;
    EXPECT_EQ(ruleFor(stops, {"wan0"}),
              "sed -i -e '/^[*]filter/,/^COMMIT/{/^COMMIT/i -A ufw-before-forward -i wan0 -m "
              "conntrack --ctstate DNAT -j ACCEPT' -e '}' /etc/ufw/before.rules && ufw reload");
    EXPECT_EQ(ruleFor(stops, {"wan0", "wan1"}),
              "sed -i -e '/^[*]filter/,/^COMMIT/{/^COMMIT/i -A ufw-before-forward -i wan0 -m "
              "conntrack --ctstate DNAT -j ACCEPT' -e '/^COMMIT/i -A ufw-before-forward -i wan1 -m "
              "conntrack --ctstate DNAT -j ACCEPT' -e '}' /etc/ufw/before.rules && ufw reload");
  }
  stops.tool = ForwardChain::Tool::nft;
  stops.manager = ForwardChain::Manager::firewalld;
  EXPECT_EQ(ruleFor(stops, {"wan0"}),
            "set StrictForwardPorts=no in /etc/firewalld/firewalld.conf, then firewall-cmd "
            "--reload");
}

// Promise [ctl-check-ports]: `upnp check` names another program that uses port 1900/udp or
// 2828/tcp, and does not take the gateway for one.
TEST(CheckPortUsers, NamesAProgramThatIsVisible) {
  EXPECT_EQ(checkPortUsers({{1900, IPPROTO_UDP, 812, "minidlnad"}}),
            (Findings{{"port-in-use",
                       "minidlnad (process 812) uses port 1900/udp, which the gateway needs.",
                       "The gateway may not hear the programs that search for it.",
                       "stop it: systemctl status 812 shows what started it"}}));
}

// Also proves [ctl-check-ports].
TEST(CheckPortUsers, SaysHowToFindAProgramThatIsNotVisible) {
  EXPECT_EQ(
      checkPortUsers({{2828, IPPROTO_TCP, 0, ""}}),
      (Findings{{"port-in-use", "Another program uses port 2828/tcp, which the gateway needs.",
                 "The gateway may not be able to serve the description that programs read "
                 "first.",
                 "stop it: ss --tcp --listening --processes sport = :2828, as root, shows "
                 "what it is"}}));
  EXPECT_NE(checkPortUsers({{1900, IPPROTO_UDP, 0, ""}}).front().remedy.find("ss --udp"),
            std::string::npos);
}

// Promise: `upnp check` finds that the packet filter takes what crosses an internal bridge for
// forwarded (br_netfilter).
TEST(CheckBridgedTraffic, MattersOnInternalBridgesOnly) {
  CheckedInterface used = interface("br-lan", Role::internal, true);
  EXPECT_EQ(checkBridgedTraffic(true, {used}), Findings{}) << "no bridge";
  used.bridge = true;
  EXPECT_EQ(checkBridgedTraffic(false, {used}), Findings{}) << "not filtered";
  EXPECT_EQ(checkBridgedTraffic(true, {used}).size(), 1U);
  used.role = Role::external;
  EXPECT_EQ(checkBridgedTraffic(true, {used}), Findings{}) << "external";
}

}  // namespace
}  // namespace lumenctl
