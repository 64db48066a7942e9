// The pinhole table on a recorded kernel and a clock that the test moves.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/pinholes/Pinholes.h"
#include "platform/Keys.h"
#include "services/pinholes/FakeIpv6Flows.h"
#include "services/pinholes/FakeSet.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen::test {

using namespace std::chrono_literals;
using lm::pinholes::End;
using lm::pinholes::Refusal;
using Texts = std::vector<std::string>;

struct Wish {
  std::string host = "2001:db8:1::10";
  uint32_t protocol = 6;
  uint32_t port = 8080;
  uint32_t lease = 600;
  std::string remotes{};
};

struct FakeForwarding : Ipv6Forwarding {
  bool isOn() override { return on; }
  bool on = true;
};

/// Keeps the records that were notified, with the connection of an owner that was notified too.
struct News : Notifier {
  struct One {
    lm::pinholes::Record record;
    bool removed = false;
    std::optional<uint64_t> owner;
  };
  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    keep(command, source, fields, std::nullopt);
  }
  void notifyWithOwner(uint64_t owner, uint32_t command, const std::vector<uint32_t>& source,
                       const lm::message& fields) override {
    keep(command, source, fields, owner);
  }
  void keep(uint32_t command, const std::vector<uint32_t>& source, const lm::message& fields,
            std::optional<uint64_t> owner) {
    EXPECT_EQ(command, lm::cmd::changed);
    EXPECT_EQ(source, (std::vector<uint32_t>{20, 7}));
    for (const lm::message& m : fields.get_message_array_ref(lm::key::records)) {
      all.push_back({lm::pinholes::readRecord(m), m.get_u32(lm::key::removed) != 0, owner});
    }
  }
  std::vector<One> all;
};

/// The events that were recorded: "opened pcp/104 tcp 8080 of 2001:db8:1::10: why".
struct Events : Notifier {
  void notify(uint32_t /*command*/, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    EXPECT_EQ(source, (std::vector<uint32_t>{20, 6}));
    constexpr const char* words[] = {"?", "opened", "changed", "closed", "refused"};
    for (const lm::message& m : fields.get_message_array_ref(lm::key::records)) {
      const lm::nat::LogRecord event = lm::nat::readLogRecord(m);
      texts.push_back(std::string(words[event.event]) + " " + event.owner + "/" +
                      std::to_string(event.user) + " " + (event.protocol == 6 ? "tcp " : "udp ") +
                      std::to_string(event.port) + " of " + event.host +
                      (event.reason.empty() ? "" : ": " + event.reason));
    }
  }
  void notifyWithOwner(uint64_t /*owner*/, uint32_t /*command*/,
                       const std::vector<uint32_t>& /*source*/,
                       const lm::message& /*fields*/) override {}
  Texts take() { return std::exchange(texts, {}); }
  Texts texts;
};

inline Ipv6LinkAddress held(const std::string& address) {
  const Ipv6Address parsed = Ipv6Address::parse(address).value();
  return {parsed, Ipv6Network(parsed, 64)};
}

class PinholesTest : public testing::Test {
 protected:
  PinholesTest() {
    EXPECT_EQ(whyNot(policies.load()), "");
    networks.internalNames({"br-lan"});
    networks.tablesRead({.links = {{2, {.index = 2, .name = "br-lan"}}},
                         .addresses = {},
                         .ipv6Addresses = {{2, {held("2001:db8:1::1"), held("fd00::1")}}}});
    directory.write("rules.nft", "");
    kernel.prints("list table ip6 lumen", installedTable);
    pinholes.begin(directory.file("rules.nft"));
    kernel.takeTexts();
    passes(0ms);
    flows.finishSweep();
    passes(100ms);
  }

  lm::message asks(const Caller& caller, uint32_t command, const lm::message& request) {
    return pinholes.handle(caller, command, request);
  }
  static lm::message requestFor(const Wish& wish) {
    lm::message request;
    lm::pinholes::write(request, lm::pinholes::Pinhole{wish.host, wish.protocol, wish.port,
                                                       wish.lease, wish.remotes});
    return request;
  }
  uint32_t opens(const Wish& wish) { return opensAs(pcp, wish); }
  uint32_t opensAs(const Caller& caller, const Wish& wish) {
    const lm::message reply = asks(caller, lm::cmd::addObject, requestFor(wish));
    EXPECT_EQ(lm::getError(reply), "");
    return reply.get_u32(lm::key::objectId);
  }
  /// So many pinholes in all.
  void allows(uint32_t most) {
    lm::message policy;
    policy.insert_u32(lm::nat::key::maxRules, most);
    EXPECT_EQ(whyNot(policies.write(policy)), "");
  }
  /// Why, with the number for programs: "3: port 80 is not allowed by the policy".
  std::string refused(const Wish& wish) { return refusedAs(pcp, wish); }
  std::string refusedAs(const Caller& caller, const Wish& wish) {
    return textOf(asks(caller, lm::cmd::addObject, requestFor(wish)));
  }
  static std::string textOf(const lm::message& reply) {
    if (!lm::isError(reply)) return "";
    return std::to_string(reply.get_u32(lm::pinholes::key::refusal)) + ": " + lm::getError(reply);
  }
  std::string renews(const Caller& caller, uint32_t id, uint32_t lease,
                     const std::optional<std::string>& remotes = std::nullopt) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    request.insert_u32(lm::pinholes::key::lease, lease);
    if (remotes) request.insert_string(lm::pinholes::key::remotes, *remotes);
    return textOf(asks(caller, lm::cmd::setObject, request));
  }
  std::string removes(const Caller& caller, uint32_t id) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    return textOf(asks(caller, lm::cmd::removeObject, request));
  }
  std::vector<lm::pinholes::Record> lists() {
    std::vector<lm::pinholes::Record> all;
    const lm::message page = asks(admin, lm::cmd::list, {});
    EXPECT_EQ(lm::getError(page), "");
    for (const lm::message& m : page.get_message_array_ref(lm::key::records)) {
      all.push_back(lm::pinholes::readRecord(m));
    }
    return all;
  }
  std::string problem() {
    return asks(admin, lm::cmd::get, {}).get_string(lm::pinholes::key::problem);
  }
  static Ipv6Flow flowTo(const std::string& host, uint16_t port,
                         const std::string& source = "2001:db8:99::1") {
    return {*Ipv6Address::parse(source), *Ipv6Address::parse(host), port};
  }
  /// The kernel's flows are judged, the sweep being due.
  void sweepRuns() {
    passes(100ms);
    ASSERT_TRUE(flows.sweeping());
    flows.finishSweep();
  }
  void passes(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(0ms);
  }
  void givesUp() {
    const auto undo = pinholes.takeUndo();
    ASSERT_TRUE(static_cast<bool>(undo));
    undo();
  }

  static constexpr const char* adds =
      "add element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }";
  static constexpr const char* deletes =
      "delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }";

  Caller pcp{.connection = 7, .service = 41, .name = "pcp", .ports = PortGrant()};
  Caller other{.connection = 8, .service = 43, .name = "other", .ports = PortGrant()};
  Caller web{.connection = 10, .service = 42, .name = "web", .reads = true};
  Caller admin{.connection = 9, .service = 0, .name = "", .administrator = true};

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  lm::test::TempDir directory;
  FakeSet kernel;
  PinholeSet set{kernel};
  FakeIpv6Flows flows;
  Ipv6Networks networks;
  FakeForwarding forwarding;
  PolicyBook policies{directory.file("nat-policy"), directory.path()};
  News news;
  Events events;
  PortLog record{events};
  Pinholes pinholes{set, flows, networks, forwarding, policies, record, news, clock};
};

}  // namespace lumen::test
