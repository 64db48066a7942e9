#include <gtest/gtest.h>
#include <pwd.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/machine/RouteTable.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* defaultRoute = "wan0\t00000000\t022D2D2D\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
constexpr uint32_t gatewayProcess = 4711;

/// A line of /proc/net/udp or /proc/net/tcp.
std::string socketLine(const std::string& port, const std::string& state, uint32_t user,
                       uint32_t inode) {
  return " 1: 00000000:" + port + " 00000000:0000 " + state + " 0:0 0:0 0 " + std::to_string(user) +
         " 0 " + std::to_string(inode) + " 2\n";
}

/// A router on which nothing is wrong, seen by root.
struct CheckCommand : testing::Test {
  CheckCommand() {
    router.hasLink("br-lan", 2);
    router.hasLink("wan0", 1);
    router.gatewayUses("br-lan", 2);
    router.gatewayUses("wan0", 1);
    router.hasAddress("br-lan", "192.168.88.1");
    router.hasAddress("wan0", "45.45.45.1");
    FakeMachine& machine = router.machine();
    machine.bridges = {"br-lan"};
    machine.chains.emplace();
    machine.files = {{routeTablePath, defaultRoute},
                     {"/proc/sys/kernel/osrelease", "6.1.0-18-amd64\n"},
                     {"/proc/sys/net/ipv4/ip_forward", "1\n"},
                     {"/proc/sys/net/ipv4/conf/br-lan/forwarding", "1\n"},
                     {"/proc/sys/net/ipv4/conf/wan0/forwarding", "1\n"},
                     {"/proc/sys/net/bridge/bridge-nf-call-iptables", "0\n"}};
  }

  FakePlatform::Result check() { return router.lumenctl({"upnp", "check"}); }
  /// The ids of what is found.
  Lines found() {
    const std::string text = router.lumenctl({"upnp", "check", "--json"}).out;
    Lines ids;
    const std::string field = "\"id\": \"";
    for (size_t at = text.find(field); at != std::string::npos; at = text.find(field, at)) {
      at += field.size();
      ids.push_back(text.substr(at, text.find('"', at) - at));
    }
    return ids;
  }
  /// The gateway's sockets at port 1900/udp and 2828/tcp, by inode.
  void listensAt(const std::vector<uint32_t>& udp, const std::vector<uint32_t>& tcp) {
    std::string udpTable;
    std::string tcpTable;
    for (const uint32_t inode : udp) udpTable += socketLine("076C", "07", 64040, inode);
    for (const uint32_t inode : tcp) tcpTable += socketLine("0B0C", "0A", 64040, inode);
    writes("/proc/4711/status", "Name:\tpalinode-igd\nUid:\t64040\t64040\t64040\t64040\n");
    writes("/proc/4711/net/udp", udpTable);
    writes("/proc/4711/net/tcp", tcpTable);
  }
  uint32_t indexOf(const std::string& link) {
    return router.link(link).get_u32(lm::interfaces::key::index);
  }
  void writes(const std::string& file, const std::string& text) {
    router.machine().files[file] = text;
  }

  FakePlatform router;
};

// Promise [ctl-check]: `upnp check` says `Nothing is wrong.` and ends with 0, or lists each fault
// with its effect and its remedy, in the order in which to fix them, and ends with 1.
// Promise [ctl-check-safe]: `upnp check` changes nothing and never starts a gateway that does not
// run.
TEST_F(CheckCommand, FindsNothingAndEndsWith0) {
  const auto result = check();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "Nothing is wrong.\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(router.changes(), Lines{});
}

// Also proves [ctl-check].
TEST_F(CheckCommand, NumbersWhatItFindsAndEndsWith1) {
  writes(routeTablePath, "");
  writes("/proc/sys/net/ipv4/conf/wan0/forwarding", "0\n");
  const auto result = check();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "1. The main routing table has no default route.\n"
            "   Answers to the Internet may not leave this router.\n"
            "   Fix it: ip route add default via GATEWAY dev wan0\n"
            "\n"
            "2. Packets that arrive on wan0 are not forwarded: net/ipv4/conf/wan0/forwarding is "
            "0.\n"
            "   What arrives there for an open port does not reach its host.\n"
            "   Fix it: sysctl -w net/ipv4/conf/wan0/forwarding=1\n"
            "\n");
  EXPECT_EQ(result.err, "");
}

// Also proves [ctl-check], [ctl-check-kernel].
TEST_F(CheckCommand, AnswersInJson) {
  EXPECT_EQ(router.lumenctl({"upnp", "check", "--json"}).out,
            "{\n  \"findings\": [],\n  \"not_checked\": []\n}\n");
  writes("/proc/sys/kernel/osrelease", "5.4.0\n");
  router.machine().chains.reset();
  const auto result = router.lumenctl({"upnp", "check", "--json"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "{\n  \"findings\": [\n    {\n      \"id\": \"kernel-too-old\",\n"
            "      \"what\": \"The kernel, 5.4.0, is older than 5.12.\",\n"
            "      \"why\": \"lumend does not start: the kernel cannot keep other programs out of "
            "its table of open ports.\",\n"
            "      \"remedy\": \"install a newer kernel and start it\"\n    }\n  ],\n"
            "  \"not_checked\": [\n    \"the firewall, which takes root to read\"\n  ]\n}\n");
}

// Promise [ctl-check-unread]: `upnp check` by a user who may not read the firewall says `Not
// checked: the firewall, which takes root to read.`
TEST_F(CheckCommand, SaysWhatItCouldNotCheck) {
  router.machine().chains.reset();
  const auto result = check();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "Nothing is wrong.\nNot checked: the firewall, which takes root to read.\n");
}

// Promise: `upnp check` finds that lumend does not run or refuses to answer, and then still looks
// at the machine.
TEST_F(CheckCommand, LooksAtTheMachineWithoutAPlatformToo) {
  router.cannotBeReached();
  writes("/proc/sys/net/ipv4/ip_forward", "0\n");
  EXPECT_EQ(found(), (Lines{"no-platform", "no-forwarding"}));
}

TEST_F(CheckCommand, SaysThatThePlatformRefuses) {
  router.refuses({20, 5}, lm::cmd::readAll, "not permitted");
  EXPECT_EQ(check().out,
            "1. lumend does not answer: not permitted.\n"
            "   What depends on it was not checked.\n"
            "   Fix it: sudo lumenctl upnp check\n\n");
}

// Also proves [ctl-check-safe].
TEST_F(CheckCommand, NeverStartsAGatewayThatDoesNotRun) {
  for (const char* const state : {lm::broker::state::stopped, lm::broker::state::leaving}) {
    router.gatewayIs(state);
    EXPECT_EQ(found(), Lines{"gateway-off"});
  }
  router.gatewayIs(lm::broker::state::waiting, 0, 12000);
  EXPECT_EQ(found(), Lines{"gateway-crashed"});
  router.gatewayIsNotInstalled();
  EXPECT_EQ(found(), Lines{"gateway-not-installed"});
  EXPECT_FALSE(router.wasAsked("[40,0]"));
}

TEST_F(CheckCommand, DistinguishesAGatewayThatIsOffFromOneThatIsSilent) {
  router.settings().insert_bool(1, false);
  EXPECT_EQ(found(), Lines{"gateway-off"});
  router.leavesUnanswered({40, 0}, lm::cmd::get, "no answer in time");
  EXPECT_EQ(check().out,
            "1. The gateway does not answer: no answer in time.\n"
            "   No host finds a gateway, and no port can be opened.\n"
            "   Fix it: systemctl restart lumend, which closes the open ports\n\n");
}

TEST_F(CheckCommand, CountsTheRolesThatTheGatewayUses) {
  router.link("br-lan").insert_u32(lm::interfaces::key::role, 1);
  EXPECT_EQ(found(), Lines{}) << "what the platform keeps does not count";
  FakePlatform unused;
  unused.hasLink("wan0", 1);
  unused.gatewayUses("wan0", 1, true);
  EXPECT_NE(unused.lumenctl({"upnp", "check"}).out.find("The gateway is not set up"),
            std::string::npos);
}

TEST_F(CheckCommand, LooksAtTheLinksOfTheMachine) {
  router.machine().unicastOnly = {"br-lan"};
  writes("/proc/sys/net/bridge/bridge-nf-call-iptables", "1\n");
  EXPECT_EQ(found(), (Lines{"no-multicast", "bridged-traffic-filtered"}));
  router.link("br-lan").insert_u32(lm::interfaces::key::index, 0);
  EXPECT_EQ(found(), Lines{"interface-away"}) << "a link that is not there has no marks";
}

TEST_F(CheckCommand, FindsAFirewallThatDropsOpenPorts) {
  router.machine().chains->emplace_back();
  router.machine().chains->back().dropsAtEnd = true;
  EXPECT_EQ(found(), Lines{"firewall-drops"});
}

TEST_F(CheckCommand, FindsStalePorts) {
  router.hasPort(8080, 6, "192.168.88.10", 80);
  EXPECT_EQ(found(), Lines{});
  router.lastPort().insert_bool(lm::nat::key::stale, true);
  EXPECT_EQ(found(), Lines{"stale-ports"});
}

// Also proves [ctl-check-ports].
TEST_F(CheckCommand, FindsOtherProgramsAtThePortsOfTheGateway) {
  writes("/proc/net/udp", socketLine("076C", "07", 0, 1) + socketLine("1234", "07", 0, 2));
  writes("/proc/net/tcp6", socketLine("0B0C", "0A", 0, 3));
  router.machine().owners[1] = {812, "minidlnad"};
  const std::string text = check().out;
  EXPECT_NE(text.find("1. minidlnad (process 812) uses port 1900/udp"), std::string::npos) << text;
  EXPECT_NE(text.find("2. Another program uses port 2828/tcp"), std::string::npos) << text;
  EXPECT_EQ(found(), (Lines{"port-in-use", "port-in-use"}));
}

TEST_F(CheckCommand, NamesAProgramWithSeveralSocketsOnce) {
  writes("/proc/net/udp", socketLine("076C", "07", 0, 1) + socketLine("076C", "07", 0, 2));
  router.machine().owners = {{1, {812, "minidlnad"}}, {2, {812, "minidlnad"}}};
  EXPECT_EQ(found(), Lines{"port-in-use"});
}

// Also proves [ctl-check-ports].
TEST_F(CheckCommand, KnowsTheGatewaysOwnSockets) {
  writes("/proc/net/tcp", socketLine("0B0C", "0A", 64040, 1));
  router.machine().owners[1] = {gatewayProcess, "palinode-igd"};
  EXPECT_EQ(found(), Lines{});
}

// Also proves [ctl-check-ports].
TEST_F(CheckCommand, KnowsTheGatewaysSocketsByItsUserWhenItCannotSeeTheProgram) {
  writes("/proc/net/tcp", socketLine("0B0C", "0A", 64040, 1));
  writes("/proc/4711/status", "Name:\tpalinode-igd\nUid:\t64040\t64040\t64040\t64040\n");
  EXPECT_EQ(found(), Lines{});
  writes("/proc/4711/status", "Name:\tpalinode-igd\nUid:\t7\t7\t7\t7\n");
  EXPECT_EQ(found(), Lines{"port-in-use"});
}

// Also proves [ctl-check-ports].
TEST_F(CheckCommand, DoesNotTakeTheGatewayForAnotherProgramWhenThePlatformRefuses) {
  writes("/proc/net/tcp", socketLine("0B0C", "0A", 64040, 1));
  router.refuses({0}, lm::broker::cmd::services, "not permitted");
  EXPECT_EQ(found(), Lines{"platform-refuses"});
}

// Promise [ctl-check-listens]: `upnp check` finds that the gateway does not listen at 1900/udp or
// 2828/tcp on an internal interface that has a link and an address, and the command that it names
// makes it listen there and leaves open ports open.
TEST_F(CheckCommand, FindsAGatewayThatDoesNotListen) {
  listensAt({1}, {2});
  EXPECT_EQ(found(), Lines{});
  listensAt({1}, {});
  EXPECT_EQ(
      check().out,
      "1. The gateway does not listen at 2828/tcp on br-lan.\n"
      "   Its hosts cannot reach the gateway, which tries to listen only when it starts there "
      "(journalctl -t palinode-igd shows why it failed).\n"
      "   Fix it: lumenctl upnp interface set br-lan --enable\n\n");
  listensAt({}, {});
  EXPECT_NE(check().out.find("does not listen at 1900/udp, 2828/tcp on br-lan."),
            std::string::npos);
}

// Also proves [ctl-check-listens].
TEST_F(CheckCommand, TakesOnlyTheSocketsOfTheGateway) {
  listensAt({1}, {2});
  writes("/proc/4711/net/tcp", socketLine("0B0C", "0A", 7, 2) + socketLine("0B0D", "0A", 64040, 3) +
                                   socketLine("0B0C", "01", 64040, 4));
  EXPECT_EQ(found(), Lines{"gateway-not-listening"})
      << "of another user, at another port, a connection";
}

// Also proves [ctl-check-listens].
TEST_F(CheckCommand, LooksForTheGatewaysSocketsOnEachInternalInterface) {
  router.hasLink("br-guest", 2);
  router.gatewayUses("br-guest", 2);
  router.hasAddress("br-guest", "192.168.99.1");
  listensAt({1, 2}, {3});
  router.machine().links = {{1, indexOf("br-lan")}, {2, indexOf("br-guest")}};
  router.machine().links[3] = indexOf("br-lan");
  const std::string text = check().out;
  EXPECT_NE(text.find("1. The gateway does not listen at 2828/tcp on br-guest."),
            std::string::npos);
  EXPECT_EQ(text.find("\n2. "), std::string::npos);
  router.machine().links[3] = 99;
  EXPECT_EQ(found(), (Lines{"gateway-not-listening", "gateway-not-listening"}))
      << "a link that has been made again";
  router.machine().links.clear();
  EXPECT_EQ(found(), Lines{}) << "the links of sockets cannot be seen";
}

// Also proves [ctl-check-listens].
TEST_F(CheckCommand, MissesNoSocketWhereTheGatewayHasNothingToServe) {
  listensAt({}, {});
  router.link("br-lan").insert_bool(lm::interfaces::key::running, false);
  EXPECT_EQ(found(), Lines{"interface-no-link"});
  router.link("br-lan").insert_bool(lm::interfaces::key::running, true);
  router.settings().insert_bool(1, false);
  EXPECT_EQ(found(), Lines{"gateway-off"});
}

// Also proves [ctl-check-listens].
TEST_F(CheckCommand, MissesNoSocketThatItCannotSee) {
  listensAt({}, {});
  router.machine().files.erase("/proc/4711/net/udp");
  EXPECT_EQ(found(), Lines{});
  listensAt({}, {});
  router.machine().files.erase("/proc/4711/status");
  EXPECT_EQ(found(), Lines{});
}

constexpr const char* serviceFile =
    "[service]\nname = upnp\nnumber = 40\nexecutable = /usr/sbin/palinode-igd\nuser = ";
constexpr const char* packageRecord = "/var/lib/dpkg/info/palinode-igd.list";

TEST_F(CheckCommand, FindsThatTheServiceFileIsMissing) {
  router.gatewayIsNotInstalled();
  EXPECT_EQ(
      check().out,
      "1. lumend knows no gateway: its service file /lumen/etc/services/upnp.ini is missing.\n"
      "   No host finds a gateway, and no port can be opened.\n"
      "   Fix it: where Palinode was built: cp build/etc/services/upnp.ini "
      "/lumen/etc/services/upnp.ini, then start lumend again\n\n");
  writes(packageRecord, "/.\n");
  EXPECT_EQ(
      check().out,
      "1. lumend knows no gateway: its service file /etc/lumen/services/upnp.ini is missing.\n"
      "   No host finds a gateway, and no port can be opened.\n"
      "   Fix it: where the file of the package lies: apt-get install --reinstall --option "
      "Dpkg::Options::=--force-confmiss ./palinode-igd_*.deb && systemctl restart lumend\n\n");
  EXPECT_NE(router.lumenctl({"--root", "/srv/x", "upnp", "check"})
                .out.find("service file /srv/x/etc/services/upnp.ini is missing"),
            std::string::npos);
}

TEST_F(CheckCommand, DistinguishesAWrongServiceFileFromAMissingOne) {
  router.gatewayIsNotInstalled();
  writes("/lumen/etc/services/upnp.ini", std::string(serviceFile) + "64040\n");
  EXPECT_EQ(found(), Lines{"gateway-file-not-read"});
  for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
           {std::string(serviceFile) + "no-such-user\n", "there is no user \"no-such-user\""},
           {std::string(serviceFile) + "64040\nspeed = 1\n", "unknown setting \"speed\""},
           {"[service]\nname = upnp\nnumber = 41\nexecutable = /x\nuser = 64040\n",
            "number is not 40"}}) {
    writes("/lumen/etc/services/upnp.ini", text);
    EXPECT_EQ(check().out,
              "1. lumend knows no gateway: its service file "
              "/lumen/etc/services/upnp.ini is wrong: " +
                  error +
                  ".\n"
                  "   No host finds a gateway, and no port can be opened.\n"
                  "   Fix it: correct the file, then start lumend again\n\n");
  }
}

// Also proves [ctl-check-service].
TEST_F(CheckCommand, FindsThatTheInstallationHasNotCreatedTheGatewaysUser) {
  const bool isInstalled = getpwnam("palinode") != nullptr;
  router.gatewayIsNotInstalled();
  writes("/lumen/etc/services/upnp.ini", std::string(serviceFile) + "palinode\n");
  EXPECT_EQ(found(), Lines{isInstalled ? "gateway-file-not-read" : "gateway-user-missing"});
  writes("/lumen/etc/services/upnp.ini", std::string(serviceFile) + "palinode\nboot = maybe\n");
  EXPECT_EQ(found(), Lines{"gateway-file-wrong"}) << "which the user does not fix";
}

// Promise [ctl-check-policy]: `upnp check` finds a policy that allows no open port, or none to the
// hosts of an internal interface, and the command that it names allows them.
TEST_F(CheckCommand, FindsAPolicyThatAllowsNoPort) {
  namespace key = lm::nat::key;
  router.policy().insert_u32(key::maxRules, 0);
  EXPECT_EQ(check().out,
            "1. The policy allows no open port: max-rules is 0.\n"
            "   Every program that asks for a port is refused.\n"
            "   Fix it: lumenctl nat policy set max-rules=4096\n\n");
  router.policy().insert_u32(key::maxRulesPerClient, 0);
  EXPECT_EQ(found(), (Lines{"policy-allows-no-port", "policy-allows-no-port"}));
  router.policy().insert_u32(key::maxRules, 1);
  router.policy().insert_u32(key::maxRulesPerClient, 1);
  EXPECT_EQ(found(), Lines{});
}

// Promise: `upnp check` finds a ruleset file from before ports could be opened to some remote hosts
// alone.
TEST_F(CheckCommand, FindsARulesetWithoutRemoteNetworks) {
  router.policy().insert_bool(lm::nat::key::remotesPossible, false);
  EXPECT_EQ(check().out,
            "1. /etc/lumen/nat-ruleset.nft has no map \"filtered\".\n"
            "   A program that asks for a port for some remote hosts alone is refused.\n"
            "   Fix it: take the map and its rule over from the file of the package, then: "
            "systemctl restart lumend\n\n");
}

TEST_F(CheckCommand, FindsAPolicyThatExcludesTheHostsOfAnInterface) {
  writes(routeTablePath, std::string(defaultRoute) +
                             "br-lan\t0058A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                             "wan0\t002D2D2D\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n");
  router.policy().insert_string(lm::nat::key::internalClients, "10.0.0.0/8, 10.1.2.3");
  EXPECT_EQ(check().out,
            "1. The policy allows no port to the hosts of br-lan: internal-clients is 10.0.0.0/8, "
            "10.1.2.3.\n"
            "   Every program there that asks for a port is refused.\n"
            "   Fix it: lumenctl nat policy set "
            "internal-clients=10.0.0.0/8,10.1.2.3,br-lan\n\n");
  router.policy().insert_string(lm::nat::key::internalClients, "10.0.0.0/8, internal");
  EXPECT_EQ(found(), Lines{});
  router.policy().insert_string(lm::nat::key::internalClients, "10.0.0.0/8, 192.168.88.7");
  EXPECT_EQ(found(), Lines{});
}

TEST_F(CheckCommand, ShowsAProgramsNameEscaped) {
  writes("/proc/net/udp", socketLine("076C", "07", 0, 1));
  router.machine().owners[1] = {812, "x\x1b[2J"};
  EXPECT_EQ(check().out.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace lumenctl
