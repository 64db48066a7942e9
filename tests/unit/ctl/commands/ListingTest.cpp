#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t tcp = 6;
constexpr uint32_t udp = 17;

struct Listing : testing::Test {
  FakePlatform router;
};

// Promise: `interface list` shows every interface with role, state, addresses and amounts.
TEST_F(Listing, ShowsInterfacesWithRoleStateAddressesAndCounters) {
  router.hasLink("br-lan", 2);
  router.hasLink("wan0", 1);
  router.hasLink("eth9");
  router.hasAddress("br-lan", "192.168.88.1");
  router.hasAddress("br-lan", "10.0.0.1");
  router.link("eth9").insert_bool(lm::interfaces::key::running, false);
  router.link("wan0").insert_u32(lm::interfaces::key::index, 0);
  const auto result = router.lumenctl({"interface", "list"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "NAME    ROLE      STATE    ADDRESS                 RECEIVED   SENT\n"
            "br-lan  internal  running  192.168.88.1, 10.0.0.1    1.2 MB  999 B\n"
            "wan0    external  away                               1.2 MB  999 B\n"
            "eth9              no link                            1.2 MB  999 B\n");
}

TEST_F(Listing, ShowsInterfacesInJson) {
  router.hasLink("wan0", 1);
  router.hasAddress("wan0", "45.45.45.1");
  EXPECT_EQ(router.lumenctl({"interface", "list", "--json"}).out,
            "[\n  {\n    \"id\": 1,\n    \"name\": \"wan0\",\n    \"role\": \"external\",\n"
            "    \"state\": \"running\",\n    \"addresses\": [\n      \"45.45.45.1\"\n    ],\n"
            "    \"bytes_received\": 1234567,\n    \"bytes_sent\": 999,\n"
            "    \"packets_received\": 0,\n    \"packets_sent\": 0\n  }\n]\n");
}

// Promise: `interface forget` takes the interface from the gateway first, and forgets nothing when
// that refuses.
TEST_F(Listing, ForgetsAnInterfaceAfterTheGatewayDid) {
  router.hasLink("wan0", 1);
  router.gatewayUses("wan0", 1);
  const auto result = router.lumenctl({"interface", "forget", "wan0"});
  EXPECT_EQ(result.out, "wan0: no longer used by the gateway\nwan0: forgotten\n");
  EXPECT_EQ(router.changes(), (Lines{"[40,0] fe0006 08fe0001=2", "[20,0] fe0006 08fe0001=1"}));
}

TEST_F(Listing, DoesNotForgetAnInterfaceThatTheGatewayDoesNotRelease) {
  router.hasLink("wan0", 1);
  router.gatewayUses("wan0", 1);
  router.refuses({40, 0}, lm::cmd::removeObject, "service unavailable");
  const auto result = router.lumenctl({"interface", "forget", "wan0"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "lumenctl: service unavailable\n");
  EXPECT_EQ(router.changes(), Lines{"[40,0] fe0006 08fe0001=2"});
}

// Promise: `address list` shows every address with its interface, or `The router has no address.`
TEST_F(Listing, ShowsAddresses) {
  router.hasLink("br-lan");
  router.hasAddress("br-lan", "192.168.88.1");
  router.hasAddress("br-lan", "10.0.0.1", true);
  EXPECT_EQ(router.lumenctl({"address", "list"}).out,
            "ADDRESS       INTERFACE  STATE\n"
            "192.168.88.1  br-lan     in use\n"
            "10.0.0.1      br-lan     interface not running\n");
  EXPECT_EQ(router.lumenctl({"address", "list", "--json"}).out,
            "[\n  {\n    \"address\": \"192.168.88.1\",\n    \"interface\": \"br-lan\",\n"
            "    \"in_use\": true\n  },\n"
            "  {\n    \"address\": \"10.0.0.1\",\n    \"interface\": \"br-lan\",\n"
            "    \"in_use\": false\n  }\n]\n");
}

TEST_F(Listing, SaysThatThereIsNoAddressAndNoService) {
  router.gatewayIsNotInstalled();
  EXPECT_EQ(router.lumenctl({"address", "list"}).out, "The router has no address.\n");
  EXPECT_EQ(router.lumenctl({"address", "list", "--json"}).out, "[]\n");
  EXPECT_EQ(router.lumenctl({"service", "list"}).out, "No service is installed.\n");
  EXPECT_EQ(router.lumenctl({"service", "list", "--json"}).out, "[]\n");
}

// Promise: `nat list` shows the ports in their order as open, closed, stale or disabled, each with
// its external address, the client, how long it is open, the connections through it now and since
// it was opened, and the service that opened it, or `No port is open.`
TEST_F(Listing, ShowsPortsInTheirOrderWithTheirState) {
  router.hasPort(9000, udp, "192.168.88.11", 9000);
  router.lastPort().insert_bool(lm::nat::key::stale, true);
  router.hasPort(8080, udp, "192.168.88.10", 80);
  router.lastPort().insert_bool(lm::nat::key::closed, true);
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  router.hasPort(9001, tcp, "192.168.88.10", 1);
  router.lastPort().insert_bool(lm::key::disabled, true);
  router.lastPort().fields().erase(lm::nat::key::connections);
  router.lastPort().fields().erase(lm::nat::key::uses);
  EXPECT_EQ(router.lumenctl({"nat", "list"}).out,
            "PORT      ON ADDRESS  TO                  STATE     OPEN FOR   CONNECTIONS  SO FAR  "
            "OPENED BY\n"
            "8080/tcp  45.45.45.1  192.168.88.10:80    open      3 min 5 s            2      17  "
            "palinode-igd\n"
            "8080/udp  45.45.45.1  192.168.88.10:80    closed    3 min 5 s            2      17  "
            "palinode-igd\n"
            "9000/udp  45.45.45.1  192.168.88.11:9000  stale     3 min 5 s            2      17  "
            "palinode-igd\n"
            "9001/tcp  45.45.45.1  192.168.88.10:1     disabled  3 min 5 s            ?       ?  "
            "palinode-igd\n");
}

TEST_F(Listing, ShowsAProtocolThatHasNoNameHereByItsNumber) {
  router.hasPort(7, 132, "192.168.88.10", 80);
  EXPECT_NE(router.lumenctl({"nat", "list"}).out.find("\n7/132 "), std::string::npos);
}

TEST_F(Listing, ShowsPortsInJson) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  EXPECT_EQ(router.lumenctl({"nat", "list", "--json"}).out,
            "[\n  {\n    \"port\": 8080,\n    \"protocol\": \"tcp\",\n"
            "    \"address\": \"45.45.45.1\",\n    \"client\": \"192.168.88.10\",\n"
            "    \"client_port\": 80,\n    \"state\": \"open\",\n    \"stale\": false,\n"
            "    \"owner\": \"palinode-igd\",\n    \"seconds\": 185,\n"
            "    \"from\": \"\",\n    \"seconds_left\": null,\n"
            "    \"connections\": 2,\n    \"connections_so_far\": 17\n  }\n]\n");
  router.lastPort().fields().erase(lm::nat::key::connections);
  router.lastPort().fields().erase(lm::nat::key::uses);
  EXPECT_TRUE(router.lumenctl({"nat", "list", "--json"})
                  .out.ends_with(",\n    \"connections\": null,\n"
                                 "    \"connections_so_far\": null\n  }\n]\n"));
}

// Promise: Where only some remote networks reach a port, `nat list` and `status` show which.
TEST_F(Listing, ShowsFromWhereAPortIsReached) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  EXPECT_EQ(router.lumenctl({"nat", "list"}).out.find("FROM"), std::string::npos);
  router.hasPort(9000, udp, "192.168.88.11", 9000);
  lm::nat::writeRemotes(router.lastPort(), {{.address = inet_addr("198.51.100.0"), .prefix = 24},
                                            {.address = inet_addr("203.0.113.7"), .prefix = 32}});
  const char* networks = "198.51.100.0/24 203.0.113.7/32";
  const std::string table = router.lumenctl({"nat", "list"}).out;
  EXPECT_TRUE(table.starts_with("PORT      ON ADDRESS  FROM                            TO"))
      << table;
  EXPECT_NE(table.find("9000/udp  45.45.45.1  " + std::string(networks) + "  192.168.88.11:9000"),
            std::string::npos)
      << table;
  EXPECT_NE(table.find("8080/tcp  45.45.45.1  anywhere  "), std::string::npos) << table;
  EXPECT_TRUE(router.lumenctl({"status"}).out.ends_with(table));
  EXPECT_NE(router.lumenctl({"nat", "list", "--json"})
                .out.find("\"from\": \"" + std::string(networks) + "\""),
            std::string::npos);
}

// Promise: Where a port has a lease, `nat list` and `status` show when it ends.
TEST_F(Listing, ShowsWhenALeaseEnds) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  router.hasPort(9000, udp, "192.168.88.11", 9000);
  router.lastPort().insert_u32(lm::nat::key::lease, 5025);
  const std::string table =
      "PORT      ON ADDRESS  TO                  STATE  OPEN FOR   ENDS IN     CONNECTIONS  SO FAR "
      " "
      "OPENED BY\n"
      "8080/tcp  45.45.45.1  192.168.88.10:80    open   3 min 5 s                        2      17 "
      " "
      "palinode-igd\n"
      "9000/udp  45.45.45.1  192.168.88.11:9000  open   3 min 5 s  1 h 23 min            2      17 "
      " "
      "palinode-igd\n";
  EXPECT_EQ(router.lumenctl({"nat", "list"}).out, table);
  EXPECT_TRUE(router.lumenctl({"status"}).out.ends_with(table));
  for (const char* command : {"nat list", "status"}) {
    const std::string json =
        router.lumenctl({command == std::string("status") ? "status" : "nat", "--json"}).out;
    EXPECT_NE(json.find("\"seconds_left\": null"), std::string::npos) << json;
    EXPECT_NE(json.find("\"seconds_left\": 5025"), std::string::npos) << json;
  }
}

// Promise: `nat list` and `status` show the open ports of IPv6 hosts after the others, in the order
// of the hosts; in JSON such a port has the field "host".
TEST_F(Listing, ShowsThePortsOfIpv6Hosts) {
  router.hasPinhole("2001:db8::11", 443, tcp);
  router.hasPinhole("2001:db8::10", 5060, udp);
  const std::string table =
      "PORT      OF IPV6 HOST  OPEN FOR   ENDS IN     OPENED BY\n"
      "5060/udp  2001:db8::10  3 min 5 s  1 h 23 min  pcp\n"
      "443/tcp   2001:db8::11  3 min 5 s  1 h 23 min  pcp\n";
  EXPECT_EQ(router.lumenctl({"nat", "list"}).out, table);
  EXPECT_TRUE(router.lumenctl({"status"}).out.ends_with(table));
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  const std::string json = router.lumenctl({"nat", "list", "--json"}).out;
  const std::string pinholes =
      "    \"port\": 5060,\n    \"protocol\": \"udp\",\n    \"host\": \"2001:db8::10\",\n"
      "    \"owner\": \"pcp\",\n    \"seconds\": 185,\n    \"from\": \"\",\n    \"seconds_left\": "
      "5025\n  },\n  {\n"
      "    \"port\": 443,\n    \"protocol\": \"tcp\",\n    \"host\": \"2001:db8::11\",\n";
  EXPECT_TRUE(json.starts_with("[\n  {\n    \"port\": 8080,\n")) << json;
  EXPECT_NE(json.find("  },\n  {\n" + pinholes), std::string::npos) << json;
  const std::string status = router.lumenctl({"status", "--json"}).out;
  EXPECT_NE(status.find("\"pinholes\": [\n    {\n      \"port\": 5060,"), std::string::npos)
      << status;
}

TEST_F(Listing, SaysThatNoPortIsOpen) {
  EXPECT_EQ(router.lumenctl({"nat", "list"}).out, "No port is open.\n");
  EXPECT_EQ(router.lumenctl({"nat", "list", "--json"}).out, "[]\n");
}

// Promise [ctl-close]: `nat close 8080/tcp` closes that port of that protocol on every address that
// has it, and a closed one stays as it is: `8080/tcp: already closed; listed until the program that
// opened it removes it`.
TEST_F(Listing, ClosesThePortOfThatProtocolOnly) {
  router.hasPort(8080, udp, "192.168.88.10", 80);
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  router.hasPort(8081, tcp, "192.168.88.10", 80);
  const auto result = router.lumenctl({"nat", "close", "8080/tcp"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "8080/tcp: closed\n");
  EXPECT_EQ(router.changes(), Lines{"[20,5] fe0003 08fe0001=2 00010024=true"});
}

// Also proves [ctl-close].
TEST_F(Listing, ClosesAPortOnEveryAddressThatHasIt) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  EXPECT_EQ(router.lumenctl({"nat", "close", "8080/TCP"}).status, 0);
  EXPECT_EQ(router.changes().size(), 2U);
  router.hasPort(5060, udp, "192.168.88.10", 80);
  router.hasPort(5061, udp, "192.168.88.10", 80);
  EXPECT_EQ(router.lumenctl({"nat", "close", "5060/UDP"}).status, 0);
  EXPECT_EQ(router.lumenctl({"nat", "close", "5061/udp"}).status, 0);
  EXPECT_EQ(router.changes().size(), 4U);
}

// Also proves [ctl-close].
TEST_F(Listing, LeavesAPortAloneThatIsClosedAlready) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  EXPECT_EQ(router.lumenctl({"nat", "close", "8080/tcp"}).status, 0);
  router.forgetRequests();
  const auto again = router.lumenctl({"nat", "close", "8080/tcp"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out,
            "8080/tcp: already closed; listed until the program that opened it removes it\n");
  EXPECT_EQ(router.lumenctl({"nat", "close", "8080/tcp", "--json"}).out, "{\n  \"done\": []\n}\n");
  EXPECT_EQ(router.changes(), Lines{});
}

// Promise: `nat close 8080/tcp 2001:db8::10` closes that port of that IPv6 host, however
// its address is spelled.
TEST_F(Listing, ClosesThePortOfAnIpv6Host) {
  router.hasPort(8080, tcp, "192.168.88.10", 80);
  router.hasPinhole("2001:db8::10", 8080, udp);
  router.hasPinhole("2001:db8::11", 8080, tcp);
  router.hasPinhole("2001:db8::10", 8080, tcp);
  router.hasPinhole("2001:db8::10", 8081, tcp);
  const auto result = router.lumenctl({"nat", "close", "8080/tcp", "2001:DB8:0::10"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "8080/tcp 2001:db8::10: closed\n");
  EXPECT_EQ(router.changes(), Lines{"[20,7] fe0006 08fe0001=4"});
  const auto again = router.lumenctl({"nat", "close", "8080/tcp", "2001:db8::10"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "lumenctl: port 8080/tcp of 2001:db8::10 is not open\n");
}

TEST_F(Listing, SaysWhichIpv6HostsHaveThePortOpen) {
  router.hasPinhole("2001:db8::11", 8080, tcp);
  router.hasPinhole("2001:db8::10", 8081, tcp);
  const auto result = router.lumenctl({"nat", "close", "8080/tcp"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "lumenctl: port 8080/tcp is not open; add 2001:db8::11 to close that of this host\n");
  EXPECT_EQ(router.changes(), Lines{});
}

// Promise: Closing a port that is not open is a refusal, `port 8080/tcp is not open`; what is no
// port is wrong usage: `a port is written like 8080/tcp or 5060/udp, not '8080'`.
TEST_F(Listing, SaysThatAPortWasNotOpen) {
  const auto result = router.lumenctl({"nat", "close", "8080/tcp"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: port 8080/tcp is not open\n");
}

TEST_F(Listing, RefusesAnInvalidPortBeforeAnyRequest) {
  for (const char* wrong : {"", "8080", "8080/", "/tcp", "0/tcp", "65536/tcp", "99999999999/tcp",
                            "80 /tcp", "+80/tcp", "8080/icmp", "8080/tcp/udp", "tcp/8080"}) {
    const auto result = router.lumenctl({"nat", "close", wrong});
    EXPECT_EQ(result.status, 2) << wrong;
    EXPECT_NE(result.err.find("a port is written like 8080/tcp"), std::string::npos) << result.err;
  }
  for (const char* wrong : {"", "192.168.88.10", "fe80::1%eth0", "[2001:db8::10]", "host"}) {
    const auto result = router.lumenctl({"nat", "close", "8080/tcp", wrong});
    EXPECT_EQ(result.status, 2) << wrong;
    EXPECT_NE(result.err.find("an IPv6 host is written like 2001:db8::10"), std::string::npos)
        << result.err;
  }
  EXPECT_EQ(router.requests(), Lines{});
}

// Promise: `nat policy` shows the policy, `nat policy set` writes what is named and nothing else,
// `nat policy reset` goes back to the file.
TEST_F(Listing, ShowsThePolicy) {
  EXPECT_EQ(router.lumenctl({"nat", "policy"}).out,
            "SETTING               VALUE       MEANING\n"
            "external-ports        1024-65535  ports that may be opened\n"
            "internal-clients      internal    hosts that they may be opened to\n"
            "internal-ports        1-65535     ports of hosts that they may lead to\n"
            "router-ports          none        ports that may be taken from this router's own "
            "programs\n"
            "max-rules             4096        how many may be open at once\n"
            "max-rules-per-client  128         how many of them to each host\n");
  EXPECT_EQ(router.lumenctl({"nat", "policy", "--json"}).out,
            "{\n  \"external-ports\": \"1024-65535\",\n  \"internal-clients\": \"internal\",\n"
            "  \"internal-ports\": \"1-65535\",\n  \"router-ports\": \"none\",\n"
            "  \"max-rules\": 4096,\n  \"max-rules-per-client\": 128\n}\n");
}

TEST_F(Listing, WritesOnlyThePolicyThatIsSet) {
  const auto result =
      router.lumenctl({"nat", "policy", "set", "external-ports=80, 443", "max-rules-per-client=5"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "external-ports: 80, 443\nmax-rules-per-client: 5\n");
  EXPECT_EQ(router.requests(), Lines{R"([20,5] fe000e 20010030="80, 443" 08010033=5)"});
}

TEST_F(Listing, WritesAllOfThePolicyWhenAllIsSet) {
  const auto result =
      router.lumenctl({"nat", "policy", "set", "external-ports=80", "internal-clients=10.0.0.0/8",
                       "max-rules=7", "max-rules-per-client=5"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.requests(),
            Lines{R"([20,5] fe000e 20010030="80" 20010031="10.0.0.0/8" 08010032=7 08010033=5)"});
}

TEST_F(Listing, ResetsThePolicy) {
  EXPECT_EQ(router.lumenctl({"nat", "policy", "reset"}).out, "policy: reset to its file\n");
  EXPECT_EQ(router.requests(), Lines{"[20,5] fe000e 00010034=true"});
}

// Promise: `nat policy show` is the same as `nat policy`.
TEST_F(Listing, ShowsThePolicyByItsOwnNameToo) {
  EXPECT_EQ(router.lumenctl({"nat", "policy", "show"}).out, router.lumenctl({"nat", "policy"}).out);
}

// Promise [ctl-reload]: `nat policy reload` reads `/lumen/etc/nat-policy` again, for ports that are
// opened from then on; what was set by command still wins.
TEST_F(Listing, LetsThePolicyFileBeReadAgain) {
  EXPECT_EQ(router.lumenctl({"nat", "policy", "reload"}).out, "policy file: reloaded\n");
  EXPECT_EQ(router.requests(), Lines{"[20,5] fe000e 00010035=true"});
}

// Promise [ctl-policy-usage]: A policy that no router takes is wrong usage, in the words of the
// policy file: `max-rules: "99999999999" is not a number from 0 to 65536`.
TEST_F(Listing, RefusesAnInvalidPolicyBeforeAnyRequest) {
  const std::string limit = " is not a number from 0 to 65536\n";
  const std::string port = " is neither a port from 1 to 65535 nor a range of ports\n";
  const std::string client =
      " is neither \"internal\", \"connected\", an interface, an address nor a network like "
      "192.168.88.0/24\n";
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"", "there is no setting ''"},
      {"max-rules", "write max-rules=VALUE\n"},
      {"max-rules=", "max-rules: \"\"" + limit},
      {"max-rules=many", "max-rules: \"many\"" + limit},
      {"max-rules=-1", "max-rules: \"-1\"" + limit},
      {"max-rules=5x", "max-rules: \"5x\"" + limit},
      {"max-rules=65537", "max-rules: \"65537\"" + limit},
      {"max-rules-per-client=99999999999", "max-rules-per-client: \"99999999999\"" + limit},
      {"external-ports=none", "external-ports: \"none\"" + port},
      {"external-ports=0", "external-ports: \"0\"" + port},
      {"internal-clients=10.0.0", "internal-clients: \"10.0.0\"" + client},
      {"max-rule=1", "there is no setting 'max-rule'"},
      {"=1", "there is no setting ''"},
  };
  for (const auto& [setting, reason] : wrong) {
    const auto result = router.lumenctl({"nat", "policy", "set", setting});
    EXPECT_EQ(result.status, 2) << setting;
    EXPECT_TRUE(result.err.starts_with("lumenctl: " + reason)) << result.err;
  }
  EXPECT_EQ(router.lumenctl({"nat", "policy", "set"}).status, 2);
  EXPECT_EQ(router.lumenctl({"nat", "policy", "set", "max-rules=1", "max-rules=2"}).status, 2);
  EXPECT_EQ(router.requests(), Lines{});
}

TEST_F(Listing, SaysWhyThePolicyWasRefused) {
  router.refuses({20, 5}, lm::cmd::set, "the policy could not be stored");
  const auto result = router.lumenctl({"nat", "policy", "set", "external-ports=80"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: the policy could not be stored\n");
}

// Promise: `service list` shows number, name, state, process, memory, restarts and when a crashed
// service starts again, or `No service is installed.`
TEST_F(Listing, ShowsServices) {
  for (const uint64_t nextStart : {3001U, 4000U}) {
    router.gatewayIs(lm::broker::state::waiting, 0, nextStart);
    EXPECT_EQ(router.lumenctl({"service", "list"}).out,
              "NUMBER  NAME          STATE    PROCESS  MEMORY  RESTARTS  STARTS AGAIN\n"
              "    40  palinode-igd  waiting                          3  in 4 s\n");
    EXPECT_NE(router.lumenctl({"service", "list", "--json"})
                  .out.find("\"resident_memory_bytes\": null,\n"),
              std::string::npos);
  }
  router.gatewayIs(lm::broker::state::running, 4711);
  EXPECT_EQ(router.lumenctl({"service", "list"}).out,
            "NUMBER  NAME          STATE    PROCESS  MEMORY  RESTARTS  STARTS AGAIN\n"
            "    40  palinode-igd  running     4711  3.1 MB         3\n");
  EXPECT_EQ(router.lumenctl({"service", "list", "--json"}).out,
            "[\n  {\n    \"number\": 40,\n    \"name\": \"palinode-igd\",\n"
            "    \"state\": \"running\",\n    \"process\": 4711,\n"
            "    \"program\": \"palinode-igd\",\n    \"resident_memory_bytes\": 3145728,\n"
            "    \"restarts\": 3,\n"
            "    \"starts_in_ms\": 0\n  }\n]\n");
}

// Promise: `identity` prints the identity.
TEST_F(Listing, ShowsTheIdentity) {
  EXPECT_EQ(router.lumenctl({"identity"}).out, "0c5e9a51\n");
  EXPECT_EQ(router.lumenctl({"identity", "--json"}).out, "{\n  \"identity\": \"0c5e9a51\"\n}\n");
}

// Promise: Tables of many pages are read to the end; one whose cursor does not rise is given up:
// `the table's pages do not end`.
TEST_F(Listing, ReadsATableOfManyPages) {
  router.sendsShortPages();
  for (uint32_t port = 1; port <= 3; ++port) router.hasPort(port, tcp, "192.168.88.10", 80);
  const auto result = router.lumenctl({"nat", "list"});
  for (const char* port : {"1/tcp ", "2/tcp ", "3/tcp "}) {
    EXPECT_NE(result.out.find(port), std::string::npos) << result.out;
  }
  EXPECT_EQ(router.requests(), (Lines{"[20,5] fe0004", "[20,5] fe0004 08fe0003=1",
                                      "[20,5] fe0004 08fe0003=2", "[20,7] fe0004"}));
}

TEST_F(Listing, GivesUpOnATableWhoseCursorDoesNotRise) {
  router.sendsShortPages(true);
  for (uint32_t port = 1; port <= 4; ++port) router.hasPort(port, tcp, "192.168.88.10", 80);
  const auto result = router.lumenctl({"nat", "list"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: the table's pages do not end\n");
}

// Also proves [ctl-escape].
TEST_F(Listing, ShowsHostileTextEscaped) {
  router.hasLink("x\x1b[2J", 2);
  router.gatewayIs("run\nning", 1);
  EXPECT_NE(router.lumenctl({"interface", "list"}).out.find("x\\x1b[2J"), std::string::npos);
  EXPECT_NE(router.lumenctl({"interface", "list", "--json"}).out.find("x\\u001b[2J"),
            std::string::npos);
  EXPECT_NE(router.lumenctl({"service", "list"}).out.find("  unknown  "), std::string::npos)
      << "a state that lumend does not have";
  router.refuses({20, 5}, lm::cmd::readAll, "no\x1b]0;owned\x07");
  EXPECT_EQ(router.lumenctl({"nat", "list"}).err, "lumenctl: no\\x1b]0;owned\\x07\n");
}

// Also proves [ctl-escape].
TEST_F(Listing, ShowsJsonOfTextThatIsNoUtf8) {
  router.hasLink("x\xff\xc2\x9b");
  const std::string out = router.lumenctl({"interface", "list", "--json"}).out;
  EXPECT_NE(out.find("\"x\\ufffd\\u009b\""), std::string::npos) << out;
}

}  // namespace
}  // namespace lumenctl
