#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "igd/Router.h"
#include "igd/WANIPConnection.h"
#include "net/Address.h"

namespace {

const std::string type = "urn:schemas-upnp-org:service:WANIPConnection:1";
const std::string client = "192.168.88.10";
constexpr uint32_t cancel = 0x16;

/// What a control point asks for when it opens a port.
struct Wish {
  std::string port = "8080";
  std::string protocol = "TCP";
  std::string internalPort = "80";
  std::string internalClient = client;
  std::string enabled = "1";
  std::string description = "web";
  std::string lease = "0";
  std::string remoteHost = {};
};

/// A connection whose NAT rule table gives rules the ids 501, 502 and so on.
class PortMapping : public Router {
 protected:
  void SetUp() override {
    platform.onRequest(natTable, lm::cmd::addObject, [this](const lm::message&) {
      lm::message reply;
      reply.insert_u32(0xfe0001, ++lastRule);
      return reply;
    });
    platform.answer(natTable, lm::cmd::setObject, {});
    platform.answer(natTable, lm::cmd::removeObject, {});
    (void)logged([this] { connection.emplace(7U, strtoip("45.45.45.2")); });
    platform.forgetSent();
  }
  void TearDown() override {
    (void)logged([this] { connection.reset(); });
  }

  std::string open(const Wish& wish) {
    return invoke(*connection, "AddPortMapping",
                  {{"NewRemoteHost", wish.remoteHost},
                   {"NewExternalPort", wish.port},
                   {"NewProtocol", wish.protocol},
                   {"NewInternalPort", wish.internalPort},
                   {"NewInternalClient", wish.internalClient},
                   {"NewEnabled", wish.enabled},
                   {"NewPortMappingDescription", wish.description},
                   {"NewLeaseDuration", wish.lease}});
  }
  std::string close(const std::string& port, const std::string& protocol,
                    const std::string& remoteHost = {}) {
    return invoke(*connection, "DeletePortMapping", key(port, protocol, remoteHost));
  }
  std::string entryAt(const std::string& index) {
    return invoke(*connection, "GetGenericPortMappingEntry", {{"NewPortMappingIndex", index}});
  }
  std::string entryOf(const std::string& port, const std::string& protocol,
                      const std::string& remoteHost = {}) {
    return invoke(*connection, "GetSpecificPortMappingEntry", key(port, protocol, remoteHost));
  }

  static Arguments key(const std::string& port, const std::string& protocol,
                       const std::string& remoteHost) {
    return {{"NewRemoteHost", remoteHost}, {"NewExternalPort", port}, {"NewProtocol", protocol}};
  }
  static Arguments target(const Wish& wish) {
    return {{"NewInternalPort", wish.internalPort},
            {"NewInternalClient", wish.internalClient},
            {"NewEnabled", wish.enabled},
            {"NewPortMappingDescription", wish.description},
            {"NewLeaseDuration", wish.lease}};
  }
  /// The reply that lists this mapping by index.
  static std::string listed(const Wish& wish) {
    Arguments out = key(wish.port, wish.protocol, "");
    for (const auto& argument : target(wish)) out.push_back(argument);
    return response(type, "GetGenericPortMappingEntry", out);
  }
  /// The reply that finds this mapping by its key.
  static std::string found(const Wish& wish) {
    return response(type, "GetSpecificPortMappingEntry", target(wish));
  }

  std::string opened() { return response(type, "AddPortMapping"); }
  std::string closed() { return response(type, "DeletePortMapping"); }
  std::string entries() { return connection->getVar("PortMappingNumberOfEntries"); }

  std::vector<lm::message> requests(uint32_t command) {
    std::vector<lm::message> contents;
    for (const lm::message& m : platform.sentTo(natTable, command)) {
      contents.push_back(lm::test::contentOf(m));
    }
    return contents;
  }

  /// The add-rule request, field by field.
  static lm::message addRequest(uint32_t protocol, uint32_t port, const std::string& to,
                                uint32_t toPort, bool disabled = false,
                                const std::string& external = "45.45.45.2") {
    lm::message m;
    m.insert_bool(0xfe0007, true);
    m.insert_bool(0xfe000a, disabled);
    m.insert_string(0x27, "dstnat");
    m.insert_bool(0x1a3, true);
    m.insert_be32(0x34, strtoip(external));
    m.insert_be32(0x35, strtoip(external));
    m.insert_bool(0x196, true);
    m.insert_u32(9, port);
    m.insert_u32(10, port);
    m.insert_bool(0x194, true);
    m.insert_u32(11, protocol);
    m.insert_u32(0x28, 22);
    m.insert_bool(0x3ee, true);
    m.insert_be32(0x3e8, strtoip(to));
    m.insert_be32(0x3e9, strtoip(to));
    m.insert_bool(0x3ef, true);
    m.insert_u32(0x3ea, toPort);
    m.insert_u32(0x3eb, toPort);
    return m;
  }
  static lm::message setRequest(uint32_t rule, bool disabled, const std::string& to,
                                uint32_t toPort) {
    lm::message m;
    m.insert_u32(0xfe0001, rule);
    m.insert_bool(0xfe000a, disabled);
    m.insert_be32(0x3e8, strtoip(to));
    m.insert_be32(0x3e9, strtoip(to));
    m.insert_u32(0x3ea, toPort);
    m.insert_u32(0x3eb, toPort);
    return m;
  }
  static lm::message removeRequest(uint32_t rule) {
    lm::message m;
    m.insert_u32(0xfe0001, rule);
    return m;
  }

  static constexpr size_t kibibyte = 1024;
  static std::string text(size_t length) { return std::string(length, 'x'); }
  /// Opens ports from 2000 on with descriptions of 64 KiB, four for each client, until they have
  /// `bytes` together.
  void fillDescriptions(size_t bytes) {
    for (size_t i = 0; i < bytes / (64 * kibibyte); ++i) {
      ASSERT_EQ(open({.port = std::to_string(2000 + i),
                      .internalClient = "192.168.88." + std::to_string(10 + i / 4),
                      .description = text(64 * kibibyte)}),
                opened())
          << i;
    }
  }

  const Wish dummy{.port = "0",
                   .internalPort = "0",
                   .internalClient = "0.0.0.0",
                   .enabled = "0",
                   .description = "Dummy inactive rule for windows to work"};
  const std::string noSuchEntry = fault(714, "NoSuchEntryInArray");
  const std::string noSuchIndex = fault(713, "SpecifiedArrayIndexInvalid");
  const std::string failed = fault(501, "Action Failed");

  std::optional<WANIPConnection> connection;
  uint32_t lastRule = 500;
};

// Promise [mapping-dummy-first]: At first the list has the dummy at index 0 and nothing at index 1.
// Promise [mapping-dummy]: The dummy is: no remote host, external port `0`, `TCP`, internal port
// `0`, client `0.0.0.0`, enabled `0`, description `Dummy inactive rule for windows to work`, lease
// `0`.
// Promise [mapping-count]: PortMappingNumberOfEntries is `0` at first, and from the first change on
// the number of mappings and one for the dummy, while that is listed.
// Also proves [fault-713].
TEST_F(PortMapping, FreshConnectionListsTheDummyOnly) {
  EXPECT_EQ(entryAt("0"), listed(dummy));
  EXPECT_EQ(entryAt("1"), noSuchIndex);
  EXPECT_EQ(ownLog(), "");
  EXPECT_EQ(entries(), "0") << "until the entries are first counted";
}

// Also proves [mapping-index].
TEST_F(PortMapping, WithoutTheDummyAFreshConnectionListsNothing) {
  connection->setShowDummyRule(false);
  EXPECT_EQ(entryAt("0"), noSuchIndex);
  EXPECT_EQ(entryAt("1"), noSuchIndex);
}

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
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{addRequest(6, 8080, client, 80)});
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
            std::vector<lm::message>{addRequest(17, 8080, client, 80)});
  EXPECT_EQ(entryOf("8080", "UDP"), found({.protocol = "UDP"}));
  EXPECT_EQ(entryOf("8080", "TCP"), noSuchEntry);
}

// Promise [mapping-order]: Mappings are listed by port, and TCP before UDP.
// Promise [mapping-index]: With the dummy the mappings have the indexes from 1 on, without it from
// 0 on.
// Promise [fault-713]: An index after the last entry is a fault 713, without its own line in the
// log.
// Also proves [mapping-protocol].
TEST_F(PortMapping, ListsMappingsByPortAndTcpBeforeUdp) {
  open({.port = "9000"});
  open({.port = "8080", .protocol = "UDP"});
  open({.port = "8080", .protocol = "TCP"});
  open({.port = "80"});
  EXPECT_EQ(entries(), "5");
  const std::vector<Wish> order = {dummy,
                                   {.port = "80"},
                                   {.port = "8080"},
                                   {.port = "8080", .protocol = "UDP"},
                                   {.port = "9000"}};
  for (size_t i = 0; i < order.size(); ++i) {
    EXPECT_EQ(entryAt(std::to_string(i)), listed(order[i])) << i;
  }
  EXPECT_EQ(entryAt("5"), noSuchIndex);
  EXPECT_EQ(entryAt("65535"), noSuchIndex);

  connection->setShowDummyRule(false);
  EXPECT_EQ(entryAt("0"), listed(order[1]));
  EXPECT_EQ(entryAt("3"), listed(order[4]));
  EXPECT_EQ(entryAt("4"), noSuchIndex);
}

// Promise [mapping-index-range]: An index that is no number, or is above 65535, is a fault 402; an
// empty one is 0.
TEST_F(PortMapping, ListsByANumberOf16Bits) {
  for (const char* index : {"65536", "-1", "first", "0x1"}) {
    EXPECT_EQ(entryAt(index), fault(402, "Invalid Args")) << index;
  }
  EXPECT_EQ(entryAt(""), listed(dummy));
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
TEST_F(PortMapping, RefusesArgumentsOfAWrongType) {
  const std::vector<Wish> wrong = {
      {.port = "65536"}, {.port = "-1"},        {.port = "http"},          {.protocol = "tcp"},
      {.protocol = ""},  {.internalPort = "x"}, {.internalPort = "65536"}, {.enabled = "True"},
      {.enabled = ""},   {.lease = "1d"}};
  for (const Wish& wish : wrong) EXPECT_EQ(open(wish), fault(402, "Invalid Args"));
  EXPECT_TRUE(platform.sent().empty());
}

// Promise [mapping-wildcard]: Any remote host that is no address counts as the wildcard, `*` for
// instance.
TEST_F(PortMapping, TakesAnyRemoteHostThatIsNoAddressForAWildcard) {
  for (const char* host : {"*", "any.example", "255.255.255.255"}) {
    EXPECT_EQ(open({.remoteHost = host}), opened()) << host;
  }
  EXPECT_EQ(requests(lm::cmd::addObject).size(), 1U);
  EXPECT_EQ(requests(lm::cmd::setObject).size(), 2U);
}

// Promise [mapping-client]: An internal client that is no address is sent as 255.255.255.255, for
// the platform to judge; an empty internal port as 0.
// Also proves [fault-716].
TEST_F(PortMapping, SendsWhatItCannotJudgeToTheNatTable) {
  EXPECT_EQ(open({.port = "0", .internalPort = "", .internalClient = "nobody"}), opened());
  EXPECT_EQ(ownLog(), "add map 0->, nobody\n");
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{addRequest(6, 0, "255.255.255.255", 0)});
  EXPECT_EQ(entryAt("1"),
            listed({.port = "0", .internalPort = "0", .internalClient = "255.255.255.255"}));
}

// Promise [mapping-enabled]: `1`, `yes` and `true` enable a mapping; one that is not enabled has a
// disabled rule.
TEST_F(PortMapping, MakesARuleThatIsDisabledWhileTheMappingIs) {
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
              std::vector<lm::message>{addRequest(6, 8080, client, 80, !enabled)})
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
            std::vector<lm::message>{setRequest(501, true, client, 81)});
  EXPECT_EQ(platform.sent().size(), 1U);
  EXPECT_EQ(entryAt("1"), listed(changed));
  EXPECT_EQ(entryAt("2"), noSuchIndex);
  EXPECT_EQ(entries(), "2");

  platform.forgetSent();
  EXPECT_EQ(open({}), opened());
  EXPECT_EQ(requests(lm::cmd::setObject),
            std::vector<lm::message>{setRequest(501, false, client, 80)})
      << "it still knows its rule";
}

TEST_F(PortMapping, DoesNotCountTheEntriesWhenAMappingOnlyChanges) {
  open({});
  connection->setVar("PortMappingNumberOfEntries", "77");
  open({.internalPort = "81"});
  EXPECT_EQ(entries(), "77");
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
  const uint64_t before = platform.clock().now();
  EXPECT_EQ(open({}), failed);
  EXPECT_EQ(platform.clock().now() - before, 6000U);
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

// Promise [mapping-delete]: DeletePortMapping logs `del map <external port>` and sends command
// 0xfe0006 with the rule's id, and nothing else.
// Also proves [mapping-protocol].
TEST_F(PortMapping, ClosesAPort) {
  open({});
  open({.protocol = "UDP"});
  platform.forgetSent();
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(ownLog(), "del map 8080\n");
  EXPECT_EQ(requests(lm::cmd::removeObject), std::vector<lm::message>{removeRequest(501)});
  EXPECT_EQ(platform.sent().size(), 1U);
  EXPECT_EQ(entries(), "2");
  EXPECT_EQ(entryOf("8080", "TCP"), noSuchEntry);
  EXPECT_EQ(entryOf("8080", "UDP"), found({.protocol = "UDP"}));
}

// Promise [mapping-delete-remote]: DeletePortMapping does not look at the remote host.
TEST_F(PortMapping, ClosesAPortWhateverTheRemoteHost) {
  open({});
  EXPECT_EQ(close("8080", "TCP", "45.45.45.77"), closed());
}

// Promise [fault-714-delete]: DeletePortMapping of an unknown mapping is a fault 714 and logs
// `deletePortMapping: NO_SUCH_ENTRY`; the platform is not asked.
TEST_F(PortMapping, DoesNotCloseWhatIsNotOpen) {
  open({});
  platform.forgetSent();
  EXPECT_EQ(close("8081", "TCP"), noSuchEntry);
  EXPECT_EQ(ownLog(), "deletePortMapping: NO_SUCH_ENTRY\n");
  EXPECT_EQ(close("8080", "UDP"), noSuchEntry);
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(close("8080", "TCP"), noSuchEntry) << "a second time";
}

// Promise [fault-501-close]: A rule that the platform does not remove logs `remove nat failed: `
// with its text and is a fault 501; the mapping stays listed.
TEST_F(PortMapping, KeepsAMappingWhoseRuleStays) {
  open({});
  platform.refuse(natTable, lm::cmd::removeObject, "not permitted");
  EXPECT_EQ(close("8080", "TCP"), failed);
  EXPECT_EQ(ownLog(), "del map 8080\nremove nat failed: not permitted\n");
  EXPECT_EQ(entryAt("1"), listed({}));
  EXPECT_EQ(entries(), "2");
}

// Promise [mapping-dummy-found]: The dummy is found under no remote host, port `0` as it is written
// and `TCP`, whether it is listed or not.
TEST_F(PortMapping, FindsTheDummyWhetherItIsListedOrNot) {
  EXPECT_EQ(entryOf("0", "TCP"), found(dummy));
  connection->setShowDummyRule(false);
  EXPECT_EQ(entryOf("0", "TCP"), found(dummy));
  EXPECT_EQ(entryOf("00", "TCP"), noSuchEntry) << "only as it is written";
  EXPECT_EQ(entryOf("0", "UDP"), noSuchEntry);
  EXPECT_EQ(entryOf("0", "TCP", "*"), noSuchEntry);
}

// Promise [fault-714]: GetSpecificPortMappingEntry of an unknown mapping, or with a remote host, is
// a fault 714, without its own line in the log.
TEST_F(PortMapping, FindsNoMappingForARemoteHost) {
  open({});
  EXPECT_EQ(entryOf("8080", "TCP", "*"), noSuchEntry);
  EXPECT_EQ(entryOf("8080", "TCP", "45.45.45.77"), noSuchEntry);
  EXPECT_EQ(ownLog(), "");
}

// Promise [mapping-empty-port]: Where a mapping is looked up, an empty external port is 0.
TEST_F(PortMapping, ReadsAnEmptyPortAsZeroWhereItLooksAMappingUp) {
  open({.port = "0"});
  EXPECT_EQ(entryOf("", "TCP"), found({.port = "0"}));
  EXPECT_EQ(close("", "TCP"), closed());
  EXPECT_EQ(ownLog(), "del map \n");
}

// Promise: Hiding and showing the dummy changes the number by one each time; setting the switch as
// it is changes nothing.
// Also proves [mapping-count].
TEST_F(PortMapping, CountsTheDummyAsLongAsItIsListed) {
  open({});
  EXPECT_EQ(entries(), "2");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "1");
  connection->setShowDummyRule(true);
  EXPECT_EQ(entries(), "2");
  close("8080", "TCP");
  EXPECT_EQ(entries(), "1");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "0");
  open({});
  EXPECT_EQ(entries(), "1");
}

TEST_F(PortMapping, DoesNotCountAnewWhenTheDummyStaysAsItIs) {
  connection->setShowDummyRule(true);
  EXPECT_EQ(entries(), "0");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "0");
  connection->setVar("PortMappingNumberOfEntries", "77");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "77");
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
            std::vector<lm::message>{setRequest(501, false, client, 81)});
  open({.port = "2000"});
  EXPECT_EQ(requests(lm::cmd::addObject),
            std::vector<lm::message>{addRequest(6, 2000, client, 80, false, "45.45.45.9")});
}

// Promise [mapping-interface]: When the interface stops, the rules of all its mappings are removed,
// by port and TCP before UDP.
TEST_F(PortMapping, RemovesEveryRuleWhenItGoes) {
  open({.port = "9000"});
  open({.port = "80", .protocol = "UDP"});
  open({.port = "80"});
  platform.forgetSent();
  EXPECT_EQ(logged([this] { connection.reset(); }), "");
  EXPECT_EQ(requests(lm::cmd::removeObject),
            (std::vector<lm::message>{removeRequest(503), removeRequest(502), removeRequest(501)}));
  EXPECT_EQ(platform.sent().size(), 3U);
}

// Promise: A rule that is not removed then logs `on cleanup remove nat failed: ` with the
// platform's text, and the next one follows.
TEST_F(PortMapping, GoesOnRemovingWhenARuleStays) {
  open({.port = "80"});
  open({.port = "81"});
  open({.port = "82"});
  platform.forgetSent();
  platform.onRequest(natTable, lm::cmd::removeObject, [](const lm::message& request) {
    return request.get_u32(0xfe0001) == 502 ? lm::errorMsg(0xfe0009, "not permitted")
                                            : lm::message();
  });
  EXPECT_EQ(logged([this] { connection.reset(); }),
            "on cleanup remove nat failed: not permitted\n");
  EXPECT_EQ(requests(lm::cmd::removeObject).size(), 3U);
}

// Promise [mapping-given-up]: A rule that was not added, changed or removed within six seconds is
// given up, and the platform undoes what it does later; only the removals of an interface that
// stops are carried out however late.
TEST_F(PortMapping, GivesUpARuleThatIsNotRemovedInTime) {
  open({});
  platform.forgetSent();
  platform.ignore(natTable, lm::cmd::removeObject);
  (void)close("8080", "TCP");
  const auto removals = requests(lm::cmd::removeObject);
  ASSERT_EQ(removals.size(), 1U);
  const std::vector<lm::message> cancelled = platform.notified(cancel);
  ASSERT_EQ(cancelled.size(), 1U);
  EXPECT_EQ(cancelled[0].get_u32(lm::key::serial),
            platform.sentTo(natTable, lm::cmd::removeObject)[0].get_u32(lm::key::serial));
}

// Its mapping is forgotten: a rule that came back would be in no list.
TEST_F(PortMapping, LetsALateRemovalStandWhenItGoes) {
  open({});
  platform.forgetSent();
  platform.ignore(natTable, lm::cmd::removeObject);
  EXPECT_EQ(logged([this] { connection.reset(); }),
            "on cleanup remove nat failed: no answer in time\n");
  EXPECT_EQ(requests(lm::cmd::removeObject).size(), 1U);
  EXPECT_TRUE(platform.notified(cancel).empty());
}

// Promise: A reply without a rule id means rule 0.
TEST_F(PortMapping, RemembersRuleZeroWhenTheNatTableNamesNone) {
  platform.answer(natTable, lm::cmd::addObject, {});
  open({});
  platform.forgetSent();
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(requests(lm::cmd::removeObject), std::vector<lm::message>{removeRequest(0)});
}

// Promise [mapping-description]: A description comes back as it was given.
TEST_F(PortMapping, GivesADescriptionBackAsItWas) {
  const Wish wish{.description = "a 'quoted' name; (x) = 1"};
  open(wish);
  EXPECT_EQ(entryOf("8080", "TCP"), found(wish));
}

// Promise [mapping-descriptions]: The descriptions of all mappings of an interface have at most 4
// MiB together, and those of one internal client 256 KiB: one that goes beyond either is refused
// with 501 and the line `addPortMapping: no room for the description`, and the platform is not
// asked.
// Promise [mapping-description-room]: A description of up to 256 bytes, or one that is not longer
// than the one it replaces, always has room.
TEST_F(PortMapping, KeepsFourMebibytesOfDescriptionsAtMost) {
  fillDescriptions(4096 * kibibyte);
  platform.forgetSent();
  const std::string other = "192.168.88.200";
  for (const size_t length : {257UL, 64 * kibibyte}) {
    EXPECT_EQ(open({.port = "999", .internalClient = other, .description = text(length)}), failed)
        << length;
    EXPECT_EQ(ownLog(),
              "add map 999->80, 192.168.88.200\naddPortMapping: no room for the description\n");
  }
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(entries(), "65") << "with the dummy";

  EXPECT_EQ(open({.port = "999", .internalClient = other, .description = text(256)}), opened())
      << "a short one always has room";
  close("2001", "TCP");
  EXPECT_EQ(open({.port = "2001", .internalClient = other, .description = text(257)}), opened());
}

// Also proves [mapping-descriptions], [mapping-description-room].
TEST_F(PortMapping, Keeps256KibibytesOfDescriptionsForEachClient) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(64 * kibibyte)}), opened()) << port;
  }
  platform.forgetSent();
  for (const size_t length : {257UL, 64 * kibibyte}) {
    EXPECT_EQ(open({.port = "2004", .description = text(length)}), failed) << length;
    EXPECT_EQ(ownLog(),
              "add map 2004->80, 192.168.88.10\naddPortMapping: no room for the description\n");
  }
  EXPECT_TRUE(platform.sent().empty());

  EXPECT_EQ(open({.port = "2004", .description = text(256)}), opened())
      << "a short one always has room";
  const Wish ofAnother{
      .port = "2005", .internalClient = "192.168.88.11", .description = text(64 * kibibyte)};
  EXPECT_EQ(open(ofAnother), opened()) << "another client has room of its own";
  EXPECT_EQ(entryOf("2005", "TCP"), found(ofAnother));
  close("2003", "TCP");
  EXPECT_EQ(open({.port = "2003", .description = text(63 * kibibyte)}), opened())
      << "the room of a closed port is free";
}

// Promise: A description that is replaced does not count against its successor.
TEST_F(PortMapping, CountsADescriptionThatIsReplacedNoMore) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(63 * kibibyte)}), opened()) << port;
  }
  // 4 KiB are free.
  EXPECT_EQ(open({.port = "2000", .description = text(67 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2001", .description = text(63 * kibibyte + 1)}), failed);
  EXPECT_EQ(ownLog(),
            "set map 2001->80, 192.168.88.10\naddPortMapping: no room for the description\n");
  EXPECT_EQ(entryOf("2001", "TCP"), found({.description = text(63 * kibibyte)})) << "as it was";
  EXPECT_EQ(open({.port = "2000", .description = text(66 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2001", .description = text(64 * kibibyte)}), opened());
}

// Also proves [mapping-description-room].
TEST_F(PortMapping, ChangesAMappingWhoseDescriptionDoesNotGrowThoughThereIsNoRoom) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(64 * kibibyte)}), opened()) << port;
  }
  // A short one is kept all the same: more than the limit is in use.
  ASSERT_EQ(open({.port = "2004", .description = text(256)}), opened());
  EXPECT_EQ(open({.port = "2000", .enabled = "0", .description = text(64 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2000", .description = text(64 * kibibyte - 1)}), opened());
  EXPECT_EQ(open({.port = "2000", .description = text(64 * kibibyte)}), failed);
}

// Promise: The line `set map` or `add map`, and the conflict with another client, come before the
// room for the description.
TEST_F(PortMapping, DecidesAConflictBeforeTheRoomForTheDescription) {
  fillDescriptions(4096 * kibibyte);
  platform.forgetSent();
  EXPECT_EQ(
      open(
          {.port = "2000", .internalClient = "192.168.88.200", .description = text(64 * kibibyte)}),
      fault(718, "ConflictInMappingEntry"));
  EXPECT_EQ(ownLog(), "set map 2000->80, 192.168.88.200\naddPortMapping: CONFLICT_IN_ENTRY\n");
  EXPECT_TRUE(platform.sent().empty());
}

// Also proves [mapping-order].
TEST(PortMapId, OrdersByPortThenByProtocol) {
  const std::vector<Id> order = {{80, Id::tcp}, {80, Id::udp}, {81, Id::tcp}, {65535, Id::udp}};
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(Id::tcp, 0U);
  EXPECT_EQ(Id::udp, 1U);
}

}  // namespace
