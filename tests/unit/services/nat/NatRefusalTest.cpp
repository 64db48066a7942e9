#include <arpa/inet.h>

#include <functional>
#include <random>

#include "lumen/runtime/Codec.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

using NatRefusalTest = NatFixture;

// Promise: A rule that is not dynamic is refused: `only dynamic rules are kept`.
// Promise [rule-chain]: A rule of another chain or action is refused: `chain must be "dstnat"`,
// `action must be 22`.
// Promise: A rule that does not match address, port and protocol or does not translate address and
// port is refused: `the external address must be matched`, `the external port must be matched`,
// `the protocol must be matched`, `the address must be translated`, `the port must be translated`.
// Promise [rule-range]: A range is refused: `external address must be one, not a range`, and
// likewise for `external port`, `internal client` and `internal port`.
// Promise [rule-protocol]: Another protocol than TCP and UDP is refused: `protocol must be 6 (TCP)
// or 17 (UDP)`.
// Promise [rule-ports]: A port outside 1 to 65535 is refused: `external port must be from 1 to
// 65535`, `internal port must be from 1 to 65535`.
// Promise: A field that a rule does not have is refused: `field 0x08000030 is not known here`.
TEST_F(NatRefusalTest, NamesTheErrorInARequest) {
  struct Row {
    std::function<void(lm::message&)> spoil;
    const char* refusal;
  };
  using M = lm::message;
  const Row rows[] = {
      {[](M& m) { m.insert_bool(0xfe0007, false); }, "only dynamic rules are kept"},
      {[](M& m) { m.insert_string(0x27, "srcnat"); }, "chain must be \"dstnat\""},
      {[](M& m) { m.insert_string(0x27, ""); }, "chain must be \"dstnat\""},
      {[](M& m) { m.insert_u32(0x28, 21); }, "action must be 22"},
      {[](M& m) { m.insert_bool(0x1a3, false); }, "the external address must be matched"},
      {[](M& m) { m.insert_bool(0x196, false); }, "the external port must be matched"},
      {[](M& m) { m.insert_bool(0x194, false); }, "the protocol must be matched"},
      {[](M& m) { m.insert_bool(0x3ee, false); }, "the address must be translated"},
      {[](M& m) { m.insert_bool(0x3ef, false); }, "the port must be translated"},
      {[](M& m) { m.insert_be32(0x35, inet_addr("45.45.45.2")); },
       "external address must be one, not a range"},
      {[](M& m) { m.insert_u32(10, 8081); }, "external port must be one, not a range"},
      {[](M& m) { m.insert_be32(0x3e9, inet_addr("192.168.88.11")); },
       "internal client must be one, not a range"},
      {[](M& m) { m.insert_u32(0x3eb, 81); }, "internal port must be one, not a range"},
      {[](M& m) { m.insert_u32(11, 1); }, "protocol must be 6 (TCP) or 17 (UDP)"},
      {[](M& m) { m.insert_u32(11, 256 + 6); }, "protocol must be 6 (TCP) or 17 (UDP)"},
      {[](M& m) {
         m.insert_u32(9, 0);
         m.insert_u32(10, 0);
       },
       "external port must be from 1 to 65535"},
      {[](M& m) {
         m.insert_u32(9, 65536 + 8080);
         m.insert_u32(10, 65536 + 8080);
       },
       "external port must be from 1 to 65535"},
      {[](M& m) {
         m.insert_u32(0x3ea, 0);
         m.insert_u32(0x3eb, 0);
       },
       "internal port must be from 1 to 65535"},
      {[](M& m) {
         m.insert_u32(0x3ea, 65536);
         m.insert_u32(0x3eb, 65536);
       },
       "internal port must be from 1 to 65535"},
      {[](M& m) { m.insert_be32(0x30, inet_addr("45.45.45.9")); },
       "field 0x08000030 is not known here"},
      {[](M& m) { m.insert_u64(9, 8080); }, "field 0x10000009 is not known here"},
      {[](M& m) { m.insert_u32(0xfe0001, 5); }, "field 0x08fe0001 is not known here"},
  };
  for (const Row& row : rows) {
    lm::message request = addRequest({});
    row.spoil(request);
    EXPECT_EQ(refused(request), row.refusal);
  }
  EXPECT_EQ(refused({}), "chain must be \"dstnat\"");
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_TRUE(lists().empty());
  opens({});
}

// Promise [external-own]: An external address that this router does not have is refused: `external
// address 45.45.45.2 is not one of this router`.
// Promise: A port outside the policy is refused: `external port 80 is not allowed by the policy`.
// Promise [client-unicast]: An internal client that is no unicast host is refused whatever the
// policy says: `internal client 224.0.0.1 is not the address of a host`.
// Promise [client-router]: An internal client that is this router is refused whatever the policy
// says: `internal client 192.168.88.1 is this router`.
// Promise [client-side]: An internal client in a network of the external address's interface is
// refused whatever the policy says: `internal client 45.45.45.7 is on the side of the external
// address`.
// Promise: An internal client outside the policy is refused: `internal client 8.8.8.8 is not
// allowed by the policy: it is not directly connected`.
TEST_F(NatRefusalTest, NamesTheErrorInAPort) {
  struct Row {
    Port port;
    const char* refusal;
  };
  const Row rows[] = {
      {{.external = "45.45.45.2"}, "external address 45.45.45.2 is not one of this router"},
      {{.external = "0.0.0.0"}, "external address 0.0.0.0 is not one of this router"},
      {{.port = 1023}, "external port 1023 is not allowed by the policy"},
      {{.port = 80}, "external port 80 is not allowed by the policy"},
      {{.client = "255.255.255.255"},
       "internal client 255.255.255.255 is not the address of a host"},
      {{.client = "0.0.0.0"}, "internal client 0.0.0.0 is not the address of a host"},
      {{.client = "127.0.0.1"}, "internal client 127.0.0.1 is not the address of a host"},
      {{.client = "224.0.0.1"}, "internal client 224.0.0.1 is not the address of a host"},
      {{.client = "240.0.0.1"}, "internal client 240.0.0.1 is not the address of a host"},
      {{.client = "192.168.88.1"}, "internal client 192.168.88.1 is this router"},
      {{.client = "45.45.45.1"}, "internal client 45.45.45.1 is this router"},
      {{.client = "45.45.45.7"},
       "internal client 45.45.45.7 is on the side of the external address"},
      {{.client = "8.8.8.8"},
       "internal client 8.8.8.8 is not allowed by the policy: it is not directly connected"},
      {{.client = "192.168.88.255"},
       "internal client 192.168.88.255 is not allowed by the policy: it is not directly connected"},
      {{.client = "192.168.88.10", .external = "192.168.88.1"},
       "internal client 192.168.88.10 is on the side of the external address"},
  };
  for (const Row& row : rows) EXPECT_EQ(refusedToOpen(row.port), row.refusal);
  EXPECT_EQ(kernelTexts(), Texts{});
}

// Also proves [rule-ports].
TEST_F(NatRefusalTest, TakesTheFirstAndTheLastPort) {
  opens({.port = 1024, .clientPort = 1});
  opens({.port = 65535, .clientPort = 65535});
}

// Promise [port-taken]: A port that has a rule, enabled or disabled, is refused to every add, also
// to one of the connection that has it, for the same client or another: `tcp port 8080
// of 45.45.45.1 is already in use`.
TEST_F(NatRefusalTest, RefusesAKeyThatIsInUseEnabledOrDisabled) {
  opensAs(admin, {});
  opensAs(admin, {.port = 8081, .disabled = true});
  EXPECT_EQ(refusedToOpen({}), "tcp port 8080 of 45.45.45.1 is already in use");
  EXPECT_EQ(refusedToOpen({.disabled = true}), "tcp port 8080 of 45.45.45.1 is already in use");
  EXPECT_EQ(refusedToOpen({.port = 8081, .client = "192.168.88.11"}),
            "tcp port 8081 of 45.45.45.1 is already in use");
  opens({.port = 8082});
  for (const char* client : {"192.168.88.10", "192.168.88.11"}) {
    EXPECT_EQ(refusedToOpen({.port = 8082, .client = client}),
              "tcp port 8082 of 45.45.45.1 is already in use");
  }
  EXPECT_EQ(lists()[2].get_be32(lm::nat::key::clientFirst), inet_addr("192.168.88.10"))
      << "nothing has moved";
}

// Promise: A changed rule is checked against the policy like a new one.
// Also proves [rule-range].
TEST_F(NatRefusalTest, ChecksAChangeAgainstThePolicy) {
  uint32_t id = opens({});
  kernelTexts();
  struct Row {
    lm::message request;
    const char* refusal;
  };
  lm::message halfAddress = idOnly(id);
  halfAddress.insert_be32(0x3e8, 0);
  lm::message halfPort = idOnly(id);
  halfPort.insert_u32(0x3eb, 80);
  lm::message addresses = setRequest(id, "192.168.88.10", 80);
  addresses.insert_be32(0x3e9, inet_addr("192.168.88.11"));
  lm::message ports = setRequest(id, "192.168.88.10", 80);
  ports.insert_u32(0x3eb, 81);
  lm::message otherKey = setRequest(id, "192.168.88.10", 80);
  otherKey.insert_u32(9, 9000);
  const Row rows[] = {
      {setRequest(id, "8.8.8.8", 80),
       "internal client 8.8.8.8 is not allowed by the policy: it is not directly connected"},
      {setRequest(id, "192.168.88.1", 80), "internal client 192.168.88.1 is this router"},
      {setRequest(id, "192.168.88.10", 0), "internal port must be from 1 to 65535"},
      {setRequest(id, "192.168.88.10", 65536), "internal port must be from 1 to 65535"},
      {halfAddress, "internal client must be one, not a range"},
      {halfPort, "internal port must be one, not a range"},
      {addresses, "internal client must be one, not a range"},
      {ports, "internal port must be one, not a range"},
      {otherKey, "field 0x08000009 is not known here"},
  };
  for (const Row& row : rows) EXPECT_EQ(sets(row.request), row.refusal);
  EXPECT_EQ(kernelTexts(), Texts{});
}

// Promise [rule-disable]: An owner may disable its rule, and change nothing else, whatever the
// policy says by then.
TEST_F(NatRefusalTest, LetsAnOwnerDisableARuleThatThePolicyWouldRefuseNow) {
  uint32_t id = opens({});
  restrictsPortsTo("9000-9999");
  kernelTexts();
  EXPECT_NE(sets(setRequest(id, "192.168.88.11", 80, true)), "") << "that is more than disabling";
  EXPECT_NE(sets(setRequest(id, "192.168.88.10", 81, true)), "");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "");
  EXPECT_TRUE(lists()[0].get_bool(lm::key::disabled));
  EXPECT_EQ(kernelTexts().size(), 2U) << "its counter was read and its element deleted";
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, false)),
            "external port 8080 is not allowed by the policy");
}

// Also proves [port-stale].
TEST_F(NatRefusalTest, ChangesAStaleRule) {
  uint32_t id = opens({.disabled = true});
  networks.addresses.erase(ip("45.45.45.1"));
  EXPECT_EQ(sets(setRequest(id, "192.168.88.11", 81)), "");
}

// Promise: The limits of the policy count enabled and disabled rules, and a rule that moves to
// another client.
TEST_F(NatRefusalTest, HoldsTheLimits) {
  lm::message policy;
  policy.insert_u32(lm::nat::key::maxRules, 4);
  policy.insert_u32(lm::nat::key::maxRulesPerClient, 2);
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  opens({.port = 5000});
  opens({.port = 5001, .disabled = true});
  EXPECT_EQ(refusedToOpen({.port = 5002}),
            "internal client 192.168.88.10 has all the rules that the policy allows it, 2");
  uint32_t other = opens({.port = 5003, .client = "192.168.88.11", .disabled = true});
  EXPECT_EQ(sets(setRequest(other, "192.168.88.10", 80, true)),
            "internal client 192.168.88.10 has all the rules that the policy allows it, 2");
  EXPECT_EQ(sets(setRequest(1, "192.168.88.10", 80)), "") << "its client stays the same";
  opens({.port = 5004, .client = "192.168.88.11"});
  EXPECT_EQ(refusedToOpen({.port = 5005, .client = "192.168.88.12"}),
            "there are 4 rules already, the policy allows 4");
  EXPECT_EQ(removes(1), "");
  opens({.port = 5005});
}

// Promise [mapping-limit]: By default 4096 rules are kept: `there are 4096 rules already, the
// policy allows 4096`.
// Promise [mapping-client-limit]: By default 128 rules lead to one client: `internal client
// 192.168.88.10 has all the rules that the policy allows it, 128`.
// Promise [mapping-kept-places]: A quarter of all places is kept for clients that have fewer than
// eight rules: `internal client 192.168.88.50 has 8 rules, and the last 1024 places are kept for
// clients that have fewer than 8`.
TEST_F(NatRefusalTest, HoldsTheDefaultLimits) {
  for (uint32_t i = 0; i < 4096; ++i) {
    // Some clients take all that they may have, then many take a few.
    const uint32_t host = i < 3072 ? 10 + i / 128 : 50 + (i - 3072) / 8;
    const std::string client = "192.168.88." + std::to_string(host);
    opens({.port = 2000 + i, .client = client.c_str()});
    if (i == 127) {
      EXPECT_EQ(refusedToOpen({.port = 60000}),
                "internal client 192.168.88.10 has all the rules that the policy allows it, 128");
    }
    if (i == 3072 + 7) {
      EXPECT_EQ(refusedToOpen({.port = 60000, .client = "192.168.88.50"}),
                "internal client 192.168.88.50 has 8 rules, and the last 1024 places are kept for "
                "clients that have fewer than 8");
    }
  }
  EXPECT_EQ(refusedToOpen({.port = 60000, .client = "192.168.88.20"}),
            "there are 4096 rules already, the policy allows 4096");
}

// Also proves [mapping-kept-places].
TEST_F(NatRefusalTest, KeepsNoPlaceFromAClientThatAnotherOneLeavesItsRule) {
  lm::message policy;
  policy.insert_u32(lm::nat::key::maxRules, 12);
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  for (uint32_t port = 5000; port < 5008; ++port) opens({.port = port});
  const uint32_t moved = opens({.port = 5008, .client = "192.168.88.11", .disabled = true});
  EXPECT_EQ(sets(setRequest(moved, "192.168.88.10", 80, true)), "") << "eight others are open";
  EXPECT_EQ(refusedToOpen({.port = 5010}),
            "internal client 192.168.88.10 has 9 rules, and the last 3 places are kept for clients "
            "that have fewer than 8");
  for (uint32_t port = 5010; port < 5013; ++port) {
    opens({.port = port, .client = "192.168.88.11"});
  }
  EXPECT_EQ(refusedToOpen({.port = 5013, .client = "192.168.88.11"}),
            "there are 12 rules already, the policy allows 12");
}

// Promise [router-ports]: A port at which a program of the router listens is refused: `tcp port
// 8443 of 45.45.45.1 is this router's own: ssh.service listens there`, unless the policy's
// `router-ports` has it.
TEST_F(NatRefusalTest, LeavesTheRoutersOwnPortsToItsPrograms) {
  listeners.programs[{6, 8443}] = "ssh.service";
  EXPECT_EQ(refusedToOpen({.port = 8443}),
            "tcp port 8443 of 45.45.45.1 is this router's own: ssh.service listens there");
  EXPECT_EQ(refusedToOpen({.port = 8443, .disabled = true}),
            "tcp port 8443 of 45.45.45.1 is this router's own: ssh.service listens there");
  EXPECT_EQ(listeners.asked.back(), "6 45.45.45.1:8443 by 11") << "where its address is";
  opens({.protocol = "udp", .port = 8443});

  lm::message policy;
  policy.insert_string(lm::nat::key::routerPorts, "8000-8999");
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  opens({.port = 8443});
}

// Also proves [router-ports].
TEST_F(NatRefusalTest, LeavesAPortToAProgramThatCameBeforeItIsEnabled) {
  const uint32_t id = opens({.disabled = true});
  listeners.programs[{6, 8080}] = "ssh.service";
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80)),
            "tcp port 8080 of 45.45.45.1 is this router's own: ssh.service listens there");
  listeners.programs.clear();
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80)), "");
  // A program that comes later loses nothing that it had.
  listeners.programs[{6, 8080}] = "ssh.service";
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80)), "");
}

// Promise [internal-ports]: A port leads to the ports of hosts that the policy's `internal-ports`
// has: `internal port 22 is not allowed by the policy`. By default those are all but 22, 23, 135,
// 137 to 139, 445, 3389 and 5900.
TEST_F(NatRefusalTest, KeepsPortsOfAdministrationClosed) {
  for (const uint32_t port : {22U, 23U, 135U, 137U, 138U, 139U, 445U, 3389U, 5900U}) {
    EXPECT_EQ(refusedToOpen({.clientPort = port}),
              "internal port " + std::to_string(port) + " is not allowed by the policy");
  }
  for (const uint32_t port : {21U, 24U, 134U, 136U, 140U, 444U, 446U, 3388U, 3390U, 5899U, 5901U}) {
    opens({.port = 10000 + port, .clientPort = port});
  }
  lm::message policy;
  policy.insert_string(lm::nat::key::internalPorts, "22");
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  opens({.clientPort = 22});
  EXPECT_EQ(refusedToOpen({.port = 8081}), "internal port 80 is not allowed by the policy");
}

/// Whatever the request, the commands to the kernel consist of checked numbers only.
TEST_F(NatRefusalTest, SurvivesRandomRequests) {
  std::mt19937 random(20260);
  const std::string good = lm::encode(addRequest({}));
  const uint32_t commands[] = {lm::cmd::list,    lm::cmd::readObject, lm::cmd::setObject,
                               lm::cmd::readAll, lm::cmd::addObject,  lm::cmd::removeObject,
                               lm::cmd::get,     lm::cmd::set,        77};
  int decoded = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string bytes = good;
    for (uint32_t flips = random() % 4; flips > 0; --flips) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    if (random() % 4 == 0) bytes.resize(random() % bytes.size());
    auto request = lm::decode(bytes);
    if (!request) continue;
    ++decoded;
    const Caller& caller = random() % 2 == 0 ? daemon : admin;
    static_cast<void>(rules.handle(caller, commands[random() % std::size(commands)], *request));
  }
  EXPECT_GT(decoded, 1000);
  for (const std::string& text : nftables.texts) {
    EXPECT_EQ(text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.,:{} \n"),
              std::string::npos)
        << text;
  }
}

}  // namespace

}  // namespace lumen::test
