#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lumen/web/RouterView.h"
#include "platform/Handler.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/History.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pinholes.h"
#include "support/TestPlatform.h"

namespace lumen::web {
namespace {

using namespace std::chrono_literals;

lm::message opened(uint32_t id, uint32_t port) {
  lm::message m;
  lm::nat::write(m, lm::nat::LogRecord{.id = id,
                                       .event = static_cast<uint32_t>(lm::nat::Event::opened),
                                       .time = 1000 + id,
                                       .owner = "upnp",
                                       .protocol = 6,
                                       .port = port});
  return m;
}

lm::message refused(uint32_t id) {
  lm::message m;
  lm::nat::write(m, lm::nat::LogRecord{.id = id,
                                       .event = static_cast<uint32_t>(lm::nat::Event::refused),
                                       .owner = "upnp",
                                       .protocol = 6,
                                       .reason = "conflict"});
  return m;
}

lm::message pinhole(uint32_t id, const std::string& host) {
  lm::message m;
  lm::pinholes::write(
      m, lm::pinholes::Record{.pinhole = {.address = host, .protocol = 6, .port = 1, .lease = 9},
                              .id = id,
                              .owner = "pcp"});
  return m;
}

lm::message changed(uint32_t id, const std::string& text) {
  lm::message m;
  m.insert_u32(lm::key::objectId, id);
  m.insert_string(lm::history::key::text, text);
  return m;
}

lm::message news(lm::message record) {
  lm::message m;
  m.insert_message_array(lm::key::records, {std::move(record)});
  return m;
}

/// A view whose program has the number 42, on a router that serves nothing but what a test says.
struct RouterViewTest : testing::Test, lm::Handler, RouterView::Listener {
  RouterViewTest() { looper.addHandler(0, *this); }
  lm::message cmdUnknown(const lm::message& request, uint32_t /*command*/) override {
    view.notified(request);
    return {};
  }
  void stateChanged() override {}
  void portChanged(const lumenctl::NatRule& /*rule*/) override {}
  void portClosed(uint32_t /*id*/) override {}
  void pinholeChanged(const lumenctl::Pinhole& pinhole) override {
    told.push_back("pinhole " + std::to_string(pinhole.id) + " of " + pinhole.host);
  }
  void pinholeClosed(uint32_t id) override {
    told.push_back("pinhole " + std::to_string(id) + " closed");
  }
  void happened(const Happening& happening) override { told.push_back(happening.text); }

  /// While the table at `path` is read, its record is also on its way as news.
  void servesAndTells(const lm::test::Path& path, const lm::message& record) {
    platform.onRequest(path, lm::cmd::readAll, [this, path, record](const lm::message&) {
      platform.postNotification(lm::cmd::changed, path, news(record));
      return news(record);
    });
  }

  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
  RouterView view{*this, *this, platform.clock()};
  std::vector<std::string> told;
};

// Promise: What comes about while the status page reads the router happened once.
TEST_F(RouterViewTest, TakesWhatItReadsAndIsToldAtTheSameTimeOnce) {
  servesAndTells(lm::nat::logPath(), opened(7, 8080));
  servesAndTells({lm::service::history, 0}, changed(3, "nat: close 5"));
  view.open();
  platform.turn();
  ASSERT_EQ(view.picture().happenings.size(), 2U);
  EXPECT_TRUE(told.empty());
}

TEST_F(RouterViewTest, CountsARefusalThatItReadsAndIsToldOfOnce) {
  servesAndTells(lm::nat::logPath(), refused(7));
  view.open();
  platform.turn();
  ASSERT_EQ(view.picture().refusals.size(), 1U);
  EXPECT_EQ(view.picture().refusals.begin()->second, 1U);
}

TEST_F(RouterViewTest, TellsWhatHappensAfterItHasRead) {
  servesAndTells(lm::nat::logPath(), opened(7, 8080));
  view.open();
  platform.notify(lm::cmd::changed, lm::nat::logPath(), news(opened(8, 8081)));
  ASSERT_EQ(told.size(), 1U);
  EXPECT_NE(told[0].find("port 8081"), std::string::npos);
}

TEST_F(RouterViewTest, TellsWhatHappensToAPortOfAnIpv6Host) {
  view.open();
  lm::message m;
  lm::nat::write(m, lm::nat::LogRecord{.id = 8,
                                       .event = static_cast<uint32_t>(lm::nat::Event::opened),
                                       .owner = "pcp",
                                       .protocol = 6,
                                       .port = 8081,
                                       .host = "2001:db8::10"});
  platform.notify(lm::cmd::changed, lm::nat::logPath(), news(m));
  EXPECT_EQ(told, std::vector<std::string>{"tcp port 8081 opened for [2001:db8::10]:8081 by pcp"});
}

TEST_F(RouterViewTest, FollowsThePortsOfIpv6Hosts) {
  servesAndTells(lm::pinholes::path(), pinhole(7, "2001:db8::10"));
  view.open();
  ASSERT_EQ(view.picture().pinholes.size(), 1U);
  EXPECT_EQ(view.picture().pinholes.at(7).host, "2001:db8::10");
  platform.turn();
  told.clear();
  platform.notify(lm::cmd::changed, lm::pinholes::path(), news(pinhole(8, "2001:db8::11")));
  lm::message gone = pinhole(7, "2001:db8::10");
  gone.insert_u32(lm::key::removed, 1);
  platform.notify(lm::cmd::changed, lm::pinholes::path(), news(gone));
  EXPECT_EQ(told, (std::vector<std::string>{"pinhole 8 of 2001:db8::11", "pinhole 7 closed"}));
  EXPECT_EQ(view.picture().pinholes.size(), 1U);
  view.close();
}

}  // namespace
}  // namespace lumen::web
