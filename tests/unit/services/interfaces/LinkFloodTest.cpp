// A service has a link taken down and up in a row, as any LAN host may have the gateway do.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "lumen/runtime/Codec.h"
#include "lumen/services/interfaces/RouteKeeper.h"
#include "platform/wire/Interfaces.h"
#include "services/interfaces/Router.h"
#include "support/Logged.h"

namespace lumen {
namespace {

using Lines = std::vector<std::string>;
using lm::test::logged;
using std::chrono::seconds;

constexpr const char* tooOften =
    "error=16646153 text=the link was taken down 3 times in a minute, which is as often as a "
    "service may";

class LinkFlood : public Router {
 protected:
  void SetUp() override {
    kernel.appears("wan0");
    starts();
    EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=1");
    kernel.getsRoute("wan0", "default", true);
  }

  std::string goesDown() { return goesDown(daemon); }
  std::string goesDown(const Caller& caller) {
    std::string answer = setsDisabled(caller, "wan0", true);
    if (answer.empty()) kernel.becomes("wan0", false, false);
    return answer;
  }
  std::string comesUp() {
    std::string answer = setsDisabled(daemon, "wan0", false);
    if (!answer.empty()) return answer;
    kernel.becomes("wan0", true, true);
    // What is put back is there again.
    if (kernel.routeTable[kernel.indexOf("wan0")].empty()) {
      kernel.getsRoute("wan0", "default", true);
    }
    return answer;
  }
  void goesDownAndUp() {
    EXPECT_EQ(goesDown(), "");
    EXPECT_EQ(comesUp(), "");
  }

  /// The routes that the next life of lumend would put back.
  [[nodiscard]] size_t storedRoutes() const {
    const auto record = lm::decode(stored(1));
    return record ? record->get_message_array_ref(0xa8000001).size() : 0;
  }
};

// Promise [link-limit]: Services may take a link down three times a minute: `the link was taken
// down 3 times in a minute, which is as often as a service may`.
TEST_F(LinkFlood, IsTakenDownForServicesThreeTimesAMinute) {
  goesDownAndUp();
  passes(seconds(20));
  goesDownAndUp();
  goesDownAndUp();
  (void)kernel.takeCalls();
  EXPECT_EQ(goesDown(), tooOften);
  EXPECT_EQ(kernel.takeCalls(), Lines{});
  passes(seconds(39));
  EXPECT_EQ(goesDown(), tooOften);
  passes(seconds(1));
  goesDownAndUp();
  EXPECT_EQ(goesDown(), tooOften) << "the second and third are within the last minute";
  passes(seconds(20));
  goesDownAndUp();
  goesDownAndUp();
  EXPECT_EQ(goesDown(), tooOften);
}

// Promise: The limit never keeps a link down.
TEST_F(LinkFlood, ComesUpAgainHoweverOftenItWasTakenDown) {
  goesDownAndUp();
  goesDownAndUp();
  EXPECT_EQ(goesDown(), "");
  EXPECT_EQ(goesDown(), "") << "it is down already, so this counts for nothing";
  EXPECT_EQ(comesUp(), "");
  EXPECT_EQ(comesUp(), "") << "it is up already";
  EXPECT_EQ(goesDown(), tooOften);
  EXPECT_EQ(goesDown(administrator), "");
  EXPECT_EQ(comesUp(), "");
}

TEST_F(LinkFlood, LimitsEachLinkByItself) {
  kernel.appears("wan1");
  EXPECT_EQ(text(administratorKeeps("wan1", 1)), "id=2");
  for (int i = 0; i < 3; ++i) goesDownAndUp();
  EXPECT_EQ(goesDown(), tooOften);
  EXPECT_EQ(setsDisabled(daemon, "wan1", true), "");
}

// Promise: An administrator may take a link down as often as needed.
TEST_F(LinkFlood, IsTakenDownForAnAdministratorAtAnyTime) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(goesDown(administrator), "");
    EXPECT_EQ(comesUp(), "");
  }
  goesDownAndUp();
}

TEST_F(LinkFlood, CountsAnAttemptThatTheKernelRefuses) {
  kernel.setUpError = EBUSY;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(goesDown(), "error=16646153 text=Device or resource busy");
  }
  EXPECT_EQ(goesDown(), tooOften);
}

// Promise: Refused attempts to take a link down leave one line a minute in lumend's log, and
// requests that change nothing leave none.
TEST_F(LinkFlood, LogsRefusalsOnceAMinute) {
  for (int i = 0; i < 3; ++i) goesDownAndUp();
  EXPECT_EQ(logged([&] {
              for (int i = 0; i < 100; ++i) EXPECT_EQ(goesDown(), tooOften);
            }),
            "interface wan0: taken down 3 times in a minute, upnp may not take it down again "
            "now\n");
  passes(seconds(60));
  EXPECT_EQ(logged([&] {
              for (int i = 0; i < 3; ++i) goesDownAndUp();
              EXPECT_EQ(goesDown(), tooOften);
              EXPECT_EQ(goesDown(), tooOften);
            }),
            "interface wan0 down for upnp\ninterface wan0 up for upnp\n"
            "interface wan0 down for upnp\ninterface wan0 up for upnp\n"
            "interface wan0 down for upnp\ninterface wan0 up for upnp\n"
            "interface wan0: taken down 3 times in a minute, upnp may not take it down again "
            "now\n");
  EXPECT_EQ(logged([&] { EXPECT_EQ(comesUp(), ""); }), "");
}

// Promise: A link that goes down and up again and again with the same routes
// writes them once.
TEST_F(LinkFlood, WritesTheSameRoutesOnce) {
  goesDownAndUp();
  EXPECT_EQ(storedRoutes(), 1U);
  storeBecomesUnwritable();
  goesDownAndUp();
  goesDownAndUp();
  kernel.getsRoute("wan0", "another");
  passes(seconds(60));
  testing::internal::CaptureStdout();
  EXPECT_EQ(goesDown(), "error=16646153 text=the link's routes could not be saved");
  (void)testing::internal::GetCapturedStdout();
}

// Promise: Routes that are back leave the store a minute later, or when lumend ends.
TEST_F(LinkFlood, ClearsTheStoreAMinuteAfterTheRoutesAreBack) {
  goesDownAndUp();
  passes(seconds(59));
  EXPECT_EQ(storedRoutes(), 1U);
  passes(seconds(1));
  EXPECT_EQ(storedRoutes(), 0U);

  goesDownAndUp();
  passes(seconds(30));
  EXPECT_EQ(goesDown(), "");
  passes(seconds(60));
  EXPECT_EQ(storedRoutes(), 1U) << "the link is down and needs them";
  EXPECT_EQ(comesUp(), "");
  interfaceTable.reset();
  EXPECT_EQ(storedRoutes(), 0U);
}

TEST_F(LinkFlood, ClearsEachLinkAMinuteAfterItsRoutesAreBack) {
  goesDownAndUp();
  passes(seconds(40));
  kernel.appears("wan1");
  EXPECT_EQ(text(administratorKeeps("wan1", 1)), "id=2");
  kernel.getsRoute("wan1", "default", true);
  EXPECT_EQ(setsDisabled(daemon, "wan1", true), "");
  kernel.becomes("wan1", false, false);
  kernel.becomes("wan1", true, true);
  passes(seconds(20));
  EXPECT_EQ(storedRoutes(), 0U);
  EXPECT_NE(stored(2).find("default"), std::string::npos);
  passes(seconds(40));
  EXPECT_EQ(stored(2).find("default"), std::string::npos);
}

TEST_F(LinkFlood, DoesNotPutRoutesBackThatAreBack) {
  goesDownAndUp();
  kernel.routeTable.clear();  // an administrator has deleted it
  (void)kernel.takeCalls();
  kernel.becomes("wan0", true, false);
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{});
  EXPECT_EQ(goesDown(), "");
  EXPECT_EQ(comesUp(), "");
  EXPECT_EQ(kernel.takeCalls(), (Lines{"wan0 down", "wan0 up"}));
}

// Also proves [saved-links].
TEST_F(LinkFlood, GivesTheRecordOfRoutesThatAreBackToALinkThatNeedsIt) {
  const auto tunnel = [](uint32_t number) { return "tun" + std::to_string(number); };
  goesDownAndUp();
  for (uint32_t number = 2; number <= 256; ++number) {
    kernel.appears(tunnel(number));
    kernel.getsRoute(tunnel(number), "default", true);
    EXPECT_EQ(setsDisabled(administrator, tunnel(number), true), "") << number;
    kernel.becomes(tunnel(number), false, false);
  }
  EXPECT_NE(stored(1).find("tun256"), std::string::npos);
  kernel.appears("tun257");
  kernel.getsRoute("tun257", "default", true);
  EXPECT_EQ(setsDisabled(administrator, "tun257", true),
            "error=16646153 text=the link's routes could not be saved");
}

}  // namespace
}  // namespace lumen
