#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/nat/NatRules.h"
#include "platform/Keys.h"
#include "platform/wire/NatRules.h"
#include "services/nat/FakeKernel.h"
#include "support/Describe.h"
#include "support/Ipv4Text.h"
#include "support/ManualClock.h"
#include "support/NatRequests.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen::test {

/// A port that a program wants open.
struct Port {
  const char* protocol = "tcp";
  uint32_t port = 8080;
  const char* client = "192.168.88.10";
  uint32_t clientPort = 80;
  bool disabled = false;
  const char* external = "45.45.45.1";
  uint32_t lease = 0;                  // in seconds; 0: permanent
  std::vector<const char*> from = {};  // networks; none: anywhere
  bool anyPort = false;
};

/// Appends remote networks, each with its prefix.
inline void insertRemotes(lm::message& request, const std::vector<const char*>& networks) {
  std::vector<uint32_t> addresses;
  std::vector<uint32_t> prefixes;
  for (const char* text : networks) {
    const auto network = Ipv4Network::parse(text);
    addresses.push_back(network->first().number());
    prefixes.push_back(network->prefix());
  }
  request.insert_u32_array(0x88010052, addresses);
  request.insert_u32_array(0x88010053, prefixes);
}

/// The request for it, as the gateway daemon sends it; what that never asks for comes last.
inline lm::message addRequest(const Port& port) {
  lm::message request =
      lm::test::addRuleRequest({.protocol = std::string(port.protocol) == "tcp" ? 6U : 17U,
                                .port = port.port,
                                .client = port.client,
                                .clientPort = port.clientPort,
                                .disabled = port.disabled,
                                .external = port.external});
  if (port.lease != 0) request.insert_u32(0x08010050, port.lease);
  if (!port.from.empty()) insertRemotes(request, port.from);
  if (port.anyPort) request.insert_bool(0x00010051, true);
  request.insert_u32_array(lm::key::destination, {20, 5});
  return request;
}

/// The change of a rule, as the gateway daemon sends it.
inline lm::message setRequest(uint32_t id, const char* client, uint32_t clientPort,
                              bool disabled = false) {
  lm::message request = lm::test::setRuleRequest(id, client, clientPort, disabled);
  request.insert_u32_array(lm::key::destination, {20, 5});
  return request;
}

inline lm::message idOnly(uint32_t id) { return lm::test::removeRuleRequest(id); }

/// The renewal of a rule.
inline lm::message renewal(uint32_t id, uint32_t lease) {
  lm::message request = idOnly(id);
  request.insert_u32(0x08010050, lease);
  return request;
}

/// Keeps what is notified.
struct RecordingNotifier : Notifier {
  struct Notification {
    uint32_t command;
    std::vector<uint32_t> source;
    lm::message fields;
    std::optional<uint64_t> owner;
  };
  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    notified.push_back({command, source, fields, std::nullopt});
  }
  void notifyWithOwner(uint64_t owner, uint32_t command, const std::vector<uint32_t>& source,
                       const lm::message& fields) override {
    notified.push_back({command, source, fields, owner});
  }
  std::vector<Notification> notified;
};

/// The whole table on a recorded kernel and a clock that stands still.
class NatFixture : public ::testing::Test {
 protected:
  NatFixture() { EXPECT_EQ(whyNot(policies.load()), ""); }

  // What the daemon does.

  uint32_t opens(const Port& port) { return opensAs(daemon, port); }
  uint32_t opensAs(const Caller& caller, const Port& port) {
    lm::message reply = rules.handle(caller, lm::cmd::addObject, addRequest(port));
    EXPECT_EQ(lm::getError(reply), "");
    return reply.get_u32(lm::key::objectId);
  }
  std::string refusedToOpen(const Port& port) { return refused(addRequest(port)); }
  std::string refused(const lm::message& request) {
    lm::message reply = rules.handle(daemon, lm::cmd::addObject, request);
    EXPECT_TRUE(lm::isError(reply));
    EXPECT_EQ(reply.get_u32(lm::key::errorCode), lm::isError(reply) ? 0xfe0009U : 0U);
    return lm::getError(reply);
  }
  std::string sets(const lm::message& request) { return asks(daemon, lm::cmd::setObject, request); }
  std::string renews(uint32_t id, uint32_t lease) { return sets(renewal(id, lease)); }
  std::string removes(uint32_t id) { return asks(daemon, lm::cmd::removeObject, idOnly(id)); }

  /// The requester of the last change gives it up.
  void givesUp() {
    const auto undo = rules.takeUndo();
    ASSERT_TRUE(static_cast<bool>(undo));
    undo();
  }

  // What the administrator does.

  std::string closes(uint32_t id) { return asks(admin, lm::cmd::setObject, closeRequest(id)); }
  std::vector<lm::message> lists() {
    std::vector<lm::message> all;
    lm::message request;
    for (;;) {
      lm::message page = rules.handle(admin, lm::cmd::list, request);
      EXPECT_EQ(lm::getError(page), "");
      for (const lm::message& one : page.get_message_array_ref(lm::key::records)) {
        all.push_back(one);
      }
      uint32_t cursor = page.get_u32(lm::key::cursor, lm::none);
      if (cursor == lm::none) return all;
      request.insert_u32(lm::key::cursor, cursor);
    }
  }

  void restrictsPortsTo(const std::string& ports) {
    lm::message policy;
    policy.insert_string(lm::nat::key::externalPorts, ports);
    EXPECT_EQ(asks(admin, lm::cmd::set, policy), "");
  }

  /// The text of the error, empty when there is none.
  std::string asks(const Caller& caller, uint32_t command, const lm::message& request) {
    return lm::getError(rules.handle(caller, command, request));
  }
  static lm::message closeRequest(uint32_t id) {
    lm::message request = idOnly(id);
    request.insert_bool(lm::nat::key::closed, true);
    return request;
  }

  /// The commands to the kernel since the last call, without those that only read counters.
  std::vector<std::string> kernelTexts() {
    std::vector<std::string> texts = nftables.takeTexts();
    std::erase(texts, listMap);
    return texts;
  }
  int listings() const {
    return static_cast<int>(std::count(nftables.texts.begin(), nftables.texts.end(), listMap));
  }

  static constexpr const char* listMap = "list map ip lumen forwards";

  /// lumend starts with a ruleset file that has, or lacks, the map for remote networks.
  void startsWith(const std::string& tableText) {
    nftables.prints("list table ip lumen", tableText);
    ASSERT_EQ(whyNot(map.open("/r.nft")), "");
    nftables.takeTexts();
  }

  /// The kernel has seen so many connections to a port; none: it does not count them.
  void counts(const Port& port, std::optional<uint64_t> connections) {
    const RuleKey key{
        .external = {.address = ip(port.external), .port = static_cast<uint16_t>(port.port)},
        .protocol = static_cast<uint8_t>(std::string(port.protocol) == "tcp" ? 6 : 17)};
    ElementParts parts = keyParts(key);
    for (const char* network : port.from) {
      parts.push_back(std::bit_cast<ElementPart>(Ipv4Network::parse(network)->first().bytes()));
    }
    nftables.counts(parts, connections);
  }

  void passes(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(std::chrono::milliseconds(0));
  }

  Caller daemon{.connection = 7, .service = 40, .name = "upnp", .ports = PortGrant()};
  Caller otherProgram{.connection = 8, .service = 0, .name = "", .ports = PortGrant()};
  Caller reader{.connection = 10, .service = 42, .name = "web", .reads = true};
  Caller admin{.connection = 9, .service = 0, .name = "", .administrator = true};

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  FakeNftables nftables;
  FakeFlows flows;
  FakeNetworks networks;
  FakeListeners listeners;
  lm::test::TempDir directory;
  PolicyBook policies{directory.file("nat-policy"), directory.path()};
  NatMap map{nftables};
  FlowMarks marks{directory.path()};
  RecordingNotifier notifier;
  PortLog portLog{notifier, [] { return PortLog::Time(std::chrono::seconds(1709251198)); }};
  RecordingNotifier ruleNews;
  NatRules rules{map,       flows,    marks,   networks, networks,
                 listeners, policies, portLog, ruleNews, clock};
};

using Texts = std::vector<std::string>;

/// As nft lists it.
inline const std::string plainTable =
    "table ip lumen { # progname lumend\n"
    "\tflags owner\n"
    "\n"
    "\tmap forwards {\n"
    "\t\ttype ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service\n"
    "\t\tcounter\n"
    "\t}\n"
    "\n"
    "\tchain dstnat {\n"
    "\t\ttype nat hook prerouting priority dstnat; policy accept;\n"
    "\t\tdnat ip to ip daddr . meta l4proto . th dport map @forwards\n"
    "\t}\n"
    "}\n";

/// The same with what rules with remote networks need.
inline const std::string wholeTable =
    plainTable.substr(0, plainTable.find("\tchain")) +
    "\tmap filtered {\n"
    "\t\ttype ipv4_addr . inet_proto . inet_service . ipv4_addr : ipv4_addr . inet_service\n"
    "\t\tflags interval\n"
    "\t\tcounter\n"
    "\t}\n"
    "\n"
    "\tchain dstnat {\n"
    "\t\ttype nat hook prerouting priority dstnat; policy accept;\n"
    "\t\tdnat ip to ip daddr . meta l4proto . th dport map @forwards\n"
    "\t\tmeta l4proto { tcp, udp } dnat ip to ip daddr . meta l4proto . th dport . ip saddr map "
    "@filtered\n"
    "\t}\n"
    "}\n";

}  // namespace lumen::test
