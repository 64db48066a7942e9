#include <chrono>

#include "igd/PortMappingFixture.h"

namespace {

using namespace std::chrono_literals;

using lm::test::addRuleRequest;
using lm::test::setRuleRequest;

// Promise [mapping-open]: AddPortMapping for a new port asks the NAT rule table for a rule: command
// 0xfe0005 to service 20, handler 5, with 18 fields in their order.
// Promise [rule-fields]: The rule is dynamic, in the chain `dstnat`, matches the external address,
// the external port and the protocol (6 for TCP, 17 for UDP), has action 22, and leads to the
// internal client and port.
// Promise: The description stays in the daemon; the platform does not get it.
// Promise: A mapping that is opened logs `add map <external port>-><internal port>, <internal
// client>`, as they were sent.
// Promise: A listed entry is: no remote host, the external port, the protocol, the internal port,
// the client, `1` or `0` for enabled, the description and the lease `0`.
// Promise: GetSpecificPortMappingEntry finds a mapping by external port and protocol and answers
// its internal port, client, enabled flag, description and lease.
// Also proves [mapping-count].
TEST_F(PortMapping, OpensATcpPort) {
  EXPECT_EQ(open({}), opened());
  EXPECT_EQ(ownLog(), "add map 8080->80, 192.168.88.10\n");
  EXPECT_EQ(requests(lm::cmd::addObject), std::vector<lm::message>{addRuleRequest({})});
  EXPECT_EQ(platform.sent().size(), 1U);
  EXPECT_EQ(entries(), "2");
  EXPECT_EQ(entryAt("1"), listed({}));
  EXPECT_EQ(entryOf("8080", "TCP"), found({}));
}

// Promise [mapping-protocol]: TCP and UDP of one port are two mappings.
// Also proves [rule-fields], [fault-714].
TEST_F(PortMapping, OpensAUdpPort) {
  EXPECT_EQ(open({.protocol = "UDP"}), opened());
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{addRuleRequest({.protocol = 17})});
  EXPECT_EQ(entryOf("8080", "UDP"), found({.protocol = "UDP"}));
  EXPECT_EQ(entryOf("8080", "TCP"), noSuchEntry);
}

// Promise [fault-726]: An address as remote host is a fault 726 and logs `addPortMapping:
// REMOTE_ONLY_WILDCARD: '<text>'`; 0.0.0.0 is an address too.
// Promise [fault-716]: An empty external port is a fault 716 and logs `addPortMapping:
// EXT_PORT_NO_WILDCARD`; `0` is taken.
// Promise [fault-725]: A lease that is not 0 is a fault 725 and logs `addPortMapping:
// ONLY_PERM_LEASES`.
// Promise: The remote host is judged before the port, and the port before the lease.
// Promise: What is refused asks the platform for nothing and changes nothing.
TEST_F(PortMapping, RefusesWhatItDoesNotMap) {
  struct Refused {
    Wish wish;
    std::string reply;
    std::string line;
    std::string reason;
  };
  const std::string onlyWildcard = fault(726, "RemoteHostOnlySupportsWildcard");
  const std::string noWildcard = fault(716, "WildcardNotPermittedInExtPort");
  const std::string onlyPermanent = fault(725, "OnlyPermanentLeasesSupported");
  const auto remoteOnly = [](const std::string& host) {
    return "addPortMapping: REMOTE_ONLY_WILDCARD: '" + host + "'\n";
  };
  const std::vector<Refused> table = {
      {{.remoteHost = "45.45.45.77"}, onlyWildcard, remoteOnly("45.45.45.77"), "a remote host"},
      {{.remoteHost = "0.0.0.0"}, onlyWildcard, remoteOnly("0.0.0.0"), "an address like any"},
      {{.port = "", .remoteHost = "1.2.3.4"},
       onlyWildcard,
       remoteOnly("1.2.3.4"),
       "the remote host is looked at first"},
      {{.port = ""}, noWildcard, "addPortMapping: EXT_PORT_NO_WILDCARD\n", "no port"},
      {{.port = "", .lease = "1"},
       noWildcard,
       "addPortMapping: EXT_PORT_NO_WILDCARD\n",
       "the port comes before the lease"},
      {{.lease = "3600"}, onlyPermanent, "addPortMapping: ONLY_PERM_LEASES\n", "a lease"},
      {{.lease = "-1"}, onlyPermanent, "addPortMapping: ONLY_PERM_LEASES\n", "wraps"},
  };
  for (const auto& [wish, reply, line, reason] : table) {
    EXPECT_EQ(open(wish), reply) << reason;
    EXPECT_EQ(ownLog(), line) << reason;
  }
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(entries(), "0");
  EXPECT_EQ(open({}), opened()) << "the next right one works";
}

// Promise [mapping-arguments]: Ports above 65535, protocols other than `TCP` and `UDP`, and values
// that are no boolean or no number are faults 402.
TEST_F(PortMapping, RefusesArgumentsOfTheWrongType) {
  const std::vector<Wish> wrong = {
      {.port = "65536"}, {.port = "-1"},        {.port = "http"},          {.protocol = "tcp"},
      {.protocol = ""},  {.internalPort = "x"}, {.internalPort = "65536"}, {.enabled = "True"},
      {.enabled = ""},   {.lease = "1d"}};
  for (const Wish& wish : wrong) EXPECT_EQ(open(wish), fault(402, "Invalid Args"));
  EXPECT_TRUE(platform.sent().empty());
}

// Promise [mapping-wildcard]: Any remote host that is no address counts as the wildcard, `*` for
// instance.
TEST_F(PortMapping, TreatsARemoteHostThatIsNoAddressAsTheWildcard) {
  for (const char* host : {"*", "any.example", "255.255.255.255"}) {
    EXPECT_EQ(open({.remoteHost = host}), opened()) << host;
  }
  EXPECT_EQ(requests(lm::cmd::addObject).size(), 1U);
  EXPECT_EQ(requests(lm::cmd::setObject).size(), 2U);
}

// Promise [mapping-client]: An internal client that is no address is sent as 255.255.255.255, for
// the platform to judge; an empty internal port as 0.
// Also proves [fault-716].
TEST_F(PortMapping, LeavesWhatItCannotJudgeToTheNatTable) {
  EXPECT_EQ(open({.port = "0", .internalPort = "", .internalClient = "nobody"}), opened());
  EXPECT_EQ(ownLog(), "add map 0->, nobody\n");
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{
                addRuleRequest({.port = 0, .client = "255.255.255.255", .clientPort = 0})});
  EXPECT_EQ(entryAt("1"),
            listed({.port = "0", .internalPort = "0", .internalClient = "255.255.255.255"}));
}

// Promise [mapping-enabled]: `1`, `yes` and `true` enable a mapping; one that is not enabled has a
// disabled rule.
TEST_F(PortMapping, DisablesTheRuleOfADisabledMapping) {
  struct Spelling {
    std::string text;
    bool enabled;
  };
  for (const auto& [text, enabled] : std::vector<Spelling>{{"1", true},
                                                           {"yes", true},
                                                           {"true", true},
                                                           {"0", false},
                                                           {"no", false},
                                                           {"false", false}}) {
    platform.forgetSent();
    EXPECT_EQ(open({.enabled = text}), opened()) << text;
    EXPECT_EQ(requests(lm::cmd::addObject),
              std::vector<lm::message>{addRuleRequest({.disabled = !enabled})})
        << text;
    EXPECT_EQ(entryOf("8080", "TCP"), found({.enabled = enabled ? "1" : "0"})) << text;
    EXPECT_EQ(close("8080", "TCP"), closed());
  }
}

// Promise [mapping-change]: The same client may change internal port, enabled flag and description
// of its mapping: command 0xfe0003 with the rule's id, the disabled flag, the client and the
// internal port, each range by its two ends, in this order.
// Promise: A change logs `set map <external port>-><internal port>, <internal client>` and leaves
// the number of entries alone.
TEST_F(PortMapping, ChangesTheMappingOfTheSameClient) {
  open({});
  platform.forgetSent();
  const Wish changed{.internalPort = "81", .enabled = "0", .description = "other"};
  EXPECT_EQ(open(changed), opened());
  EXPECT_EQ(ownLog(), "set map 8080->81, 192.168.88.10\n");
  EXPECT_EQ(requests(lm::cmd::setObject),
            std::vector<lm::message>{setRuleRequest(501, client, 81, true)});
  EXPECT_EQ(platform.sent().size(), 1U);
  EXPECT_EQ(entryAt("1"), listed(changed));
  EXPECT_EQ(entryAt("2"), noSuchIndex);
  EXPECT_EQ(entries(), "2");

  platform.forgetSent();
  EXPECT_EQ(open({}), opened());
  EXPECT_EQ(requests(lm::cmd::setObject), std::vector<lm::message>{setRuleRequest(501, client, 80)})
      << "it still knows its rule";
}

// Promise [fault-718]: Another client cannot take a mapping over: fault 718, logged as
// `addPortMapping: CONFLICT_IN_ENTRY` after the `set map ` line; the platform is not asked.
TEST_F(PortMapping, KeepsAMappingFromAnotherClient) {
  open({});
  platform.forgetSent();
  EXPECT_EQ(open({.internalClient = "192.168.88.11"}), fault(718, "ConflictInMappingEntry"));
  EXPECT_EQ(ownLog(), "set map 8080->80, 192.168.88.11\naddPortMapping: CONFLICT_IN_ENTRY\n");
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(entryAt("1"), listed({}));
}

// Promise [fault-501]: A rule that the platform refuses logs `add nat failed: ` with the platform's
// text and is a fault 501; nothing is recorded.
TEST_F(PortMapping, RecordsNothingWhenTheRuleIsRefused) {
  platform.refuse(natTable, lm::cmd::addObject, "already in use");
  EXPECT_EQ(open({}), failed);
  EXPECT_EQ(ownLog(), "add map 8080->80, 192.168.88.10\nadd nat failed: already in use\n");
  EXPECT_EQ(entryAt("1"), noSuchIndex);
  EXPECT_EQ(entries(), "0");
}

// Promise [mapping-timeout]: A platform that does not answer within six seconds counts as one that
// refuses the rule.
TEST_F(PortMapping, RecordsNothingWhenTheNatTableDoesNotAnswer) {
  platform.ignore(natTable, lm::cmd::addObject);
  const auto before = platform.clock().now();
  EXPECT_EQ(open({}), failed);
  EXPECT_EQ(platform.clock().now() - before, 6s);
  EXPECT_EQ(entryAt("1"), noSuchIndex);
}

// Promise [fault-501-change]: A change that the platform refuses logs `set nat failed: ` with its
// text and is a fault 501; the mapping stays as it was.
TEST_F(PortMapping, KeepsTheMappingAsItWasWhenTheChangeIsRefused) {
  open({});
  platform.refuse(natTable, lm::cmd::setObject, "port not allowed");
  EXPECT_EQ(open({.internalPort = "22", .enabled = "0", .description = "x"}), failed);
  EXPECT_EQ(ownLog(), "set map 8080->22, 192.168.88.10\nset nat failed: port not allowed\n");
  EXPECT_EQ(entryAt("1"), listed({}));
}

// Promise [mapping-address]: A new external address touches no open port: mappings keep the address
// that they were made with, also through a change, and only new ones get the new address.
TEST_F(PortMapping, LeavesOpenPortsAtTheAddressTheyWereMadeWith) {
  open({.port = "1000"});
  platform.forgetSent();
  (void)logged([this] { connection->setExternalIP(strtoip("45.45.45.9")); });
  EXPECT_TRUE(platform.sent().empty());
  open({.port = "1000", .internalPort = "81"});
  EXPECT_EQ(requests(lm::cmd::setObject),
            std::vector<lm::message>{setRuleRequest(501, client, 81)});
  open({.port = "2000"});
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{addRuleRequest({.port = 2000, .external = "45.45.45.9"})});
}

}  // namespace
