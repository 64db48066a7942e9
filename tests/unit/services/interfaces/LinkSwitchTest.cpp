// An interface is taken down and up by a message, and keeps its routes.

#include <gtest/gtest.h>

#include <cerrno>

#include "lumen/runtime/Codec.h"
#include "lumen/services/interfaces/RouteKeeper.h"
#include "platform/Keys.h"
#include "platform/Store.h"
#include "platform/wire/Interfaces.h"
#include "services/interfaces/Router.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* refused = "error=16646153 text=";

class LinkSwitch : public Router {
 protected:
  void SetUp() override {
    kernel.appears("br-lan");
    kernel.appears("wan0");
    kernel.appears("other");
    starts();
    EXPECT_EQ(text(administratorKeeps("br-lan", 2)), "id=1");
    EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=2");
  }

  void wanGoesDown() {
    EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
    kernel.becomes("wan0", false, false);
    (void)kernel.takeCalls();
  }
};

// Promise [rights-link]: A service may take an interface that is kept as external down and up, and
// no other: `not permitted`.
TEST_F(LinkSwitch, TakesAnExternalInterfaceDownAndUpForAService) {
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  EXPECT_EQ(kernel.takeCalls(), (Lines{"wan0 down", "wan0 up"}));
}

// Promise: RequestConnection for an interface that is up and running is notified at once, so the
// status is `Connected` again.
TEST_F(LinkSwitch, NotifiesOfTheStateOfALinkThatIsSwitchedAlready) {
  (void)notified();
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  EXPECT_EQ(notified(), Lines{stateOf(record(2, 3, "wan0", "disabled=0 running=1"))});
  wanGoesDown();
  (void)notified();
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  EXPECT_EQ(notified(), Lines{stateOf(record(2, 3, "wan0", "disabled=1 running=0"))});
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  EXPECT_EQ(notified(), Lines{}) << "the kernel's change notifies";
  kernel.setUpError = ENODEV;
  EXPECT_NE(setsDisabled(daemon, "wan0", true), "");
  EXPECT_EQ(notified(), Lines{});
}

// Promise: An administrator may take every interface down and up.
TEST_F(LinkSwitch, TakesAnyInterfaceDownAndUpForAnAdministrator) {
  EXPECT_EQ(setsDisabled(administrator, "br-lan", true), "");
  EXPECT_EQ(setsDisabled(administrator, "other", true), "");
  EXPECT_EQ(setsDisabled(administrator, "other", false), "");
  EXPECT_EQ(kernel.takeCalls(), (Lines{"br-lan down", "other down", "other up"}));
}

// Also proves [rights-link].
TEST_F(LinkSwitch, RefusesAServiceEveryOtherInterface) {
  EXPECT_EQ(setsDisabled(daemon, "br-lan", true), std::string(refused) + "not permitted");
  EXPECT_EQ(setsDisabled(daemon, "other", true), std::string(refused) + "not permitted");
  EXPECT_EQ(text(administratorForgets("wan0")), "");
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), std::string(refused) + "not permitted");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

// Promise: Nothing but `disabled` can be set: `only "disabled" can be set`, for a service `not
// permitted`.
TEST_F(LinkSwitch, RefusesAServiceEveryOtherField) {
  lm::message request = object(2);
  request.insert_bool(lm::key::disabled, true);
  request.insert_u32(lm::interfaces::key::role, 2);
  EXPECT_EQ(text(asks(daemon, lm::cmd::setObject, request)),
            std::string(refused) + "not permitted");
  EXPECT_EQ(text(asks(administrator, lm::cmd::setObject, request)),
            std::string(refused) + "only \"disabled\" can be set");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

TEST_F(LinkSwitch, RefusesARequestThatSetsNothing) {
  EXPECT_EQ(text(asks(daemon, lm::cmd::setObject, object(2))),
            std::string(refused) + "only \"disabled\" can be set");
}

TEST_F(LinkSwitch, DoesNotTakeTransportFieldsForFieldsToSet) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, {20, 0});
  request.insert_u32_array(lm::key::source, {40, 0});
  request.insert_u32(lm::key::serial, 9);
  request.insert_u32(lm::key::command, lm::cmd::setObject);
  request.insert_u32(lm::key::objectId, 2);
  request.insert_bool(lm::key::disabled, true);
  EXPECT_EQ(text(asks(daemon, lm::cmd::setObject, request)), "");
  EXPECT_EQ(kernel.takeCalls(), Lines{"wan0 down"});
}

// Promise: A link that is away cannot be taken down or up: `the link is away`.
TEST_F(LinkSwitch, RefusesALinkThatIsAway) {
  kernel.leaves("wan0");
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), std::string(refused) + "the link is away");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

// Promise: When the kernel refuses to take a link down or up its error text is the answer.
TEST_F(LinkSwitch, ReportsWhyTheKernelRefused) {
  kernel.setUpError = ENODEV;
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), std::string(refused) + "No such device");
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), std::string(refused) + "No such device");
}

// Promise [routes-back]: The routes of a link that is taken down, of all tables and both families
// but those that the kernel makes itself, are restored when it runs again.
TEST_F(LinkSwitch, RestoresTheRoutesWhenTheLinkRunsAgain) {
  kernel.getsRoute("wan0", "default", true);
  kernel.getsRoute("wan0", "on-link");
  wanGoesDown();
  kernel.becomes("wan0", true, false);
  EXPECT_EQ(kernel.takeCalls(), Lines{}) << "the link does not run yet";
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), (Lines{"route on-link by 3", "route default by 3"}))
      << "routes without a gateway come first";
  kernel.becomes("wan0", true, false);
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{}) << "once is enough";
}

// Promise [routes-unsaved]: Routes are saved before the link goes down: one whose routes cannot be
// read or saved stays up, `the link's routes could not be read`, `the link's routes could not be
// saved`.
TEST_F(LinkSwitch, SavesTheRoutesBeforeItTakesTheLinkDown) {
  kernel.getsRoute("wan0", "default", true);
  kernel.routesAreReadable = false;
  EXPECT_EQ(setsDisabled(daemon, "wan0", true),
            std::string(refused) + "the link's routes could not be read");
  kernel.routesAreReadable = true;
  storeBecomesUnwritable();
  EXPECT_EQ(setsDisabled(daemon, "wan0", true),
            std::string(refused) + "the link's routes could not be saved");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

// Promise: Nothing stays saved when the kernel refuses to take the link down.
TEST_F(LinkSwitch, SavesNothingWhenTheKernelRefusesToTakeTheLinkDown) {
  kernel.getsRoute("wan0", "default", true);
  kernel.setUpError = EBUSY;
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), std::string(refused) + "Device or resource busy");
  (void)kernel.takeCalls();
  kernel.becomes("wan0", true, false);
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

// Promise [routes-restart]: Saved routes survive a restart of lumend, and are restored even if the
// link came up while lumend was away.
TEST_F(LinkSwitch, RestoresTheRoutesAfterARestart) {
  kernel.getsRoute("wan0", "default", true);
  wanGoesDown();
  restarts();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
  restarts();
  EXPECT_EQ(kernel.takeCalls(), Lines{}) << "they are no longer saved";
}

// Also proves [routes-restart].
TEST_F(LinkSwitch, RestoresTheRoutesWhenTheLinkCameUpWhileLumendWasAway) {
  kernel.getsRoute("wan0", "default", true);
  wanGoesDown();
  kernel.silent = true;
  kernel.becomes("wan0", true, true);
  kernel.silent = false;
  restarts();
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
}

// Promise: Saved routes are restored even if the notifications of going down and up were lost, and
// not because of an old one.
TEST_F(LinkSwitch, RestoresTheRoutesWhenGoingDownAndUpWasLost) {
  kernel.getsRoute("wan0", "default", true);
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  (void)kernel.takeCalls();
  kernel.readsEverything();
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
}

TEST_F(LinkSwitch, KeepsTheRoutesWhenAnOldNotificationHasTheLinkRunning) {
  kernel.getsRoute("wan0", "default", true);
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  (void)kernel.takeCalls();
  // The kernel has taken it down, but an earlier notification arrives only now.
  const Link stale = kernel.all.links[3];
  kernel.all.links[3].up = kernel.all.links[3].running = false;
  kernel.deliversLate(stale);
  EXPECT_EQ(kernel.takeCalls(), Lines{});
  kernel.becomes("wan0", false, false);
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
}

// Promise: Routes that are not restored yet when the link is taken down again stay saved.
TEST_F(LinkSwitch, KeepsRoutesThatAreNotRestoredYetWhenTheLinkIsTakenDownAgain) {
  kernel.getsRoute("wan0", "first", true);
  wanGoesDown();
  kernel.becomes("wan0", true, false);
  kernel.getsRoute("wan0", "second");
  wanGoesDown();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), (Lines{"route second by 3", "route first by 3"}));
}

// Promise: The routes of a kept name are restored on the next link of that name.
TEST_F(LinkSwitch, RestoresTheRoutesOfAKeptNameByItsNextLink) {
  kernel.getsRoute("wan0", "default", true);
  wanGoesDown();
  kernel.leaves("wan0");
  kernel.appears("wan0");
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 5"});
}

// Promise: The routes of a name that leaves the table are dropped, even if it left while lumend was
// away.
TEST_F(LinkSwitch, DropsTheRoutesOfANameThatLeavesTheTable) {
  kernel.getsRoute("other", "default", true);
  EXPECT_EQ(setsDisabled(administrator, "other", true), "");
  kernel.becomes("other", false, false);
  (void)kernel.takeCalls();
  kernel.leaves("other");
  kernel.appears("other");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

TEST_F(LinkSwitch, DropsTheRoutesOfANameThatLeftWhileLumendWasAway) {
  kernel.getsRoute("other", "default", true);
  EXPECT_EQ(setsDisabled(administrator, "other", true), "");
  kernel.becomes("other", false, false);
  (void)kernel.takeCalls();
  kernel.silent = true;
  kernel.leaves("other");
  kernel.silent = false;
  restarts();
  kernel.appears("other");
  EXPECT_EQ(kernel.takeCalls(), Lines{});
}

// Promise: Routes that need each other are restored in an order that works; an existing route
// counts as restored.
TEST_F(LinkSwitch, RetriesRoutesThatNeedEachOther) {
  kernel.getsRoute("wan0", "behind", true);
  kernel.getsRoute("wan0", "nearer", true);
  bool nearerIsThere = false;
  kernel.refusesRoute = [&](const std::string& content) {
    if (content == "nearer") nearerIsThere = true;
    return content == "behind" && !nearerIsThere ? ENETUNREACH : 0;
  };
  wanGoesDown();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(),
            (Lines{"route behind by 3 refused", "route nearer by 3", "route behind by 3"}));
}

// Promise: Routes that the kernel refuses are logged, `interface wan0: 1 saved routes not put back:
// Network is unreachable`, and not tried forever.
TEST_F(LinkSwitch, LogsTheRoutesThatTheKernelRefuses) {
  kernel.getsRoute("wan0", "lost", true);
  kernel.getsRoute("wan0", "there", true);
  kernel.refusesRoute = [](const std::string& content) {
    return content == "lost" ? ENETUNREACH : EEXIST;
  };
  wanGoesDown();
  testing::internal::CaptureStdout();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "interface wan0: 1 saved routes not put back: Network is unreachable\n");
  (void)kernel.takeCalls();
  kernel.becomes("wan0", true, false);
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{}) << "they are not tried forever";
}

// Promise: Saved routes stay saved when the link stops while they are restored, and when the kernel
// could not be asked.
TEST_F(LinkSwitch, KeepsTheRoutesWhenTheLinkStopsWhileTheyAreRestored) {
  kernel.getsRoute("wan0", "on-link");
  kernel.getsRoute("wan0", "default", true);
  wanGoesDown();
  kernel.refusesRoute = [&](const std::string& content) {
    if (content == "on-link") return 0;
    kernel.all.links[kernel.indexOf("wan0")].running = false;
    return ENETDOWN;
  };
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), (Lines{"route on-link by 3", "route default by 3 refused",
                                       "route default by 3 refused"}));
  kernel.becomes("wan0", false, false);
  kernel.refusesRoute = [](const std::string&) { return 0; };
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), (Lines{"route on-link by 3", "route default by 3"}));
}

TEST_F(LinkSwitch, KeepsTheRoutesThatTheKernelCouldNotBeAskedFor) {
  kernel.getsRoute("wan0", "on-link");
  kernel.getsRoute("wan0", "default", true);
  wanGoesDown();
  kernel.refusesRoute = [](const std::string& content) { return content == "default" ? EIO : 0; };
  testing::internal::CaptureStdout();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "interface wan0: 1 saved routes not put back: Input/output error\n");
  (void)kernel.takeCalls();
  kernel.refusesRoute = [](const std::string&) { return 0; };
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
}

// Promise [saved-routes]: Of a link's routes 96 KiB are saved, and the number of the others is
// logged: `interface wan0: 1017 routes too many to save`.
TEST_F(LinkSwitch, SavesAsManyRoutesAsARecordHolds) {
  for (int i = 0; i < 2000; ++i) kernel.getsRoute("wan0", std::string(68, 'r'));
  testing::internal::CaptureStdout();
  wanGoesDown();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("1017 routes too many to save"),
            std::string::npos);
  restarts();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls().size(), 983U);
}

// Promise [saved-links]: 255 links may have saved routes at a time; the next one stays up:
// `interfaces: too many links with saved routes`.
TEST_F(LinkSwitch, SavesTheRoutesOf255LinksAtMost) {
  const auto name = [](uint32_t record) { return "tun" + std::to_string(record); };
  for (uint32_t record = 1; record <= 254; ++record) {
    lm::message route;
    route.insert_u32(1, 100);
    route.insert_string(3, "default");
    lm::message saved;
    saved.insert_string(lm::interfaces::key::name, name(record));
    saved.insert_message_array(1, {route});
    storeHolds(record, saved);
    kernel.appears(name(record), false, false);
  }
  restarts();
  kernel.getsRoute("other", "default", true);
  EXPECT_EQ(setsDisabled(administrator, "other", true), "");
  kernel.getsRoute("wan0", "default", true);
  (void)kernel.takeCalls();
  testing::internal::CaptureStdout();
  EXPECT_EQ(setsDisabled(administrator, "wan0", true),
            std::string(refused) + "the link's routes could not be saved");
  EXPECT_NE(
      testing::internal::GetCapturedStdout().find("interfaces: too many links with saved routes\n"),
      std::string::npos);
  EXPECT_EQ(kernel.takeCalls(), Lines{});
  kernel.leaves(name(7));
  EXPECT_EQ(setsDisabled(administrator, "wan0", true), "");
}

/// A record of the saved routes of a link.
lm::message savedRoute(const std::string& name) {
  lm::message route;
  route.insert_u32(1, 2);
  route.insert_bool(2, false);
  route.insert_string(3, "route of " + name);
  lm::message record;
  record.insert_string(lm::interfaces::key::name, name);
  record.insert_message_array(1, {route});
  return record;
}

// Also proves [routes-restart].
TEST(RouteKeeperTest, ReadsARecordOnlyForALinkThatHasNone) {
  const lm::test::TempDir dir;
  lm::message other = savedRoute("wan0");
  other.insert_message_array(1, {});
  dir.write("1", lm::encode(other));
  dir.write("2", lm::encode(savedRoute("wan0")));
  dir.write("3", lm::encode(savedRoute("wan0")));
  lm::Store store(dir.path(), RouteKeeper::records);
  FakeLinks kernel;
  kernel.appears("wan0");
  const lm::test::ManualClock clock;
  const lm::EventLoop loop(clock);
  RouteKeeper keeper(kernel, store, clock);
  keeper.restore("wan0", kernel.indexOf("wan0"));
  EXPECT_EQ(kernel.takeCalls(), Lines{"route route of wan0 by 2"});
}

TEST_F(LinkSwitch, DoesNotSaveARouteTwice) {
  kernel.getsRoute("wan0", "default");
  wanGoesDown();
  kernel.becomes("wan0", true, false);
  kernel.getsRoute("wan0", "default");  // restored by an administrator
  wanGoesDown();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 3"});
}

TEST_F(LinkSwitch, KeepsTheRoutesOfALinkThatIsGoneAgain) {
  kernel.getsRoute("wan0", "default");
  wanGoesDown();
  Link late = kernel.all.links[kernel.indexOf("wan0")];
  late.up = late.running = true;
  kernel.silent = true;
  kernel.leaves("wan0");
  kernel.silent = false;
  kernel.deliversLate(late);
  EXPECT_EQ(kernel.takeCalls(), Lines{}) << "reported late";
  kernel.readsEverything();
  kernel.appears("wan0");
  EXPECT_EQ(kernel.takeCalls(), Lines{"route default by 5"});
}

// Promise [cancel-link]: A link that was taken down or up too late for its requester is switched
// back, with a line in the log.
TEST_F(LinkSwitch, ASwitchThatWasGivenUpIsUndone) {
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  kernel.becomes("wan0", false, false);
  const auto takenDown = interfaceTable->takeUndo();
  ASSERT_TRUE(takenDown);
  (void)kernel.takeCalls();
  const lm::test::LogCapture log;
  takenDown();
  EXPECT_EQ(kernel.takeCalls(), Lines{"wan0 up"});
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  const auto takenUp = interfaceTable->takeUndo();
  ASSERT_TRUE(takenUp);
  (void)kernel.takeCalls();
  takenUp();
  EXPECT_EQ(kernel.takeCalls(), Lines{"wan0 down"});
  EXPECT_EQ(log.text(),
            "interface wan0 up again\ninterface wan0 up for upnp\ninterface wan0 down again\n");
}

TEST_F(LinkSwitch, ASwitchThatChangedNothingHasNothingToUndo) {
  (void)interfaceTable->takeUndo();
  EXPECT_EQ(setsDisabled(daemon, "wan0", false), "");
  EXPECT_FALSE(interfaceTable->takeUndo());
}

// Promise: The log says which program took a link down or up: `interface wan0 down for upnp`,
// `interface wan0 up for the administrator`.
TEST_F(LinkSwitch, LogsWhoTookALinkDown) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(setsDisabled(daemon, "wan0", true), "");
  EXPECT_EQ(setsDisabled(administrator, "wan0", false), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "interface wan0 down for upnp\ninterface wan0 up for the administrator\n");
}

// Also proves [log-safe].
TEST_F(LinkSwitch, ALinkNameThatIsATerminalCommandIsShownHarmless) {
  kernel.appears("\x1b[2J\xff");
  const lm::test::LogCapture log;
  EXPECT_EQ(setsDisabled(administrator, "\x1b[2J\xff", true), "");
  EXPECT_EQ(log.text(), "interface ?[2J? down for the administrator\n");
}

}  // namespace
}  // namespace lumen
