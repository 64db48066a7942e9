// Start, settings and end of the gateway.

#include <chrono>

#include "core/GatewayFixture.h"
#include "platform/Keys.h"
#include "platform/Store.h"

namespace {

using namespace std::chrono_literals;

using lm::test::contentOf;
using lm::test::describe;

class GatewaySettings : public GatewayTest {
 protected:
  static std::string stored() {
    const std::optional<lm::message> record = lm::Store("/lumen/store/upnpm", 5).get(0);
    return record ? describe(*record) : "none";
  }
  static void store(const lm::message& record) {
    ASSERT_TRUE(lm::Store("/lumen/store/upnpm", 5).set(0, record));
  }
};

// Also proves [identity-wait].
TEST_F(GatewaySettings, AsksForTheIdentityFirst) {
  start();
  const auto asked = platform.sentTo({65}, 0xfe000d);
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(describe(contentOf(asked[0])), "{}");
}

// Promise [settings]: There are three settings, bool 1 `enabled`, bool 2
// `allowDisableExternalInterface` and bool 3 `showDummyRule`, which are off, on and on when nothing
// was saved.
// Promise [disabled-exit]: A daemon that is not enabled leaves one second after its start, logs
// `exit` and ends with status 0.
TEST_F(GatewaySettings, StartsDisabledWithoutASavedRecordAndLeavesAfterASecond) {
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
  platform.advance(990ms);
  EXPECT_FALSE(platform.stopped());
  platform.advance(10ms);
  EXPECT_TRUE(platform.stopped());
  stop();
  EXPECT_EQ(log(), Lines{"exit"});
}

// Also proves [disabled-exit].
TEST_F(GatewaySettings, StaysDisabledWhenTheRecordSaysSo) {
  store(settings(false, false, false));
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=0}");
  EXPECT_TRUE(platform.sentTo({20, 0}, lm::cmd::list).empty());
  platform.advance(1s);
  EXPECT_TRUE(platform.stopped());
}

// Promise: A saved record that leaves a setting out leaves it at its default.
TEST_F(GatewaySettings, KeepsTheDefaultsOfFieldsThatTheRecordLacks) {
  store(settings({}, false));
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=1}");
}

// Promise: A daemon whose saved record says so starts enabled: it serves at once and stays.
// Promise: Switching on starts the configured interfaces, and each step is a line in the log.
// Promise: An interface that runs is not started again: an internal one logs only `intr: 1 NUMBER`,
// an external one nothing.
TEST_F(GatewaySettings, ServesAtOnceWhenTheRecordSaysSo) {
  start();
  addObject(lan, internal);
  addObject(wan, external);
  stop();
  store(settings(true));
  (void)log();
  listen();
  start();
  EXPECT_EQ(log(), (Lines{
                       "add dev: LAN",
                       "set type: 2 2",
                       "intr: 0 0",
                       "add dev: WAN",
                       "set type: 1 3",
                       "start ext: WAN",
                       "initial external addr: 0.0.0.0",
                       "enable",
                       "dev: 2 disabled: 0 running: 1",
                       "dev: 3 disabled: 0 running: 1",
                       "dev: 2 add address: 192.168.88.1 (11)",
                       "dev: 2 ip: 192.168.88.1",
                       "intr: 0 3232258049",
                       "start int: LAN 192.168.88.1",
                       "sendAdverts",
                       "dev: 3 add address: 45.45.45.2 (12)",
                       "dev: 3 ip: 45.45.45.2",
                       "set external ip 45.45.45.2",
                       "intr: 1 3232258049",
                   }));
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
  platform.advance(1000s);
  EXPECT_FALSE(platform.stopped());
}

// Promise [identity-none]: Without an identity the daemon works, with UDNs that end in their bare
// prefix.
TEST_F(GatewaySettings, WorksWithoutAnIdentity) {
  platform.refuse({65}, 0xfe000d, "no such service");
  serve();
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-").size(), 1U);
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-WAN-DEVICE--3").size(), 1U);
}

// Promise [identity-wait]: The daemon first asks service 65 with command `0xfe000d` for the
// router's identity, string `0x20000001`, and waits for it no longer than six seconds.
TEST_F(GatewaySettings, WaitsNoLongerThanSixSecondsForTheIdentity) {
  platform.ignore({65}, 0xfe000d);
  const auto before = platform.clock().now();
  start();
  EXPECT_EQ(platform.clock().now() - before, 6s);
}

// Promise [gateway-record]: A write is saved as it came, as record 0 of `/lumen/store/upnpm`, in
// place of the last one.
// Promise: Subscribers to the daemon's changes are notified of a write, command `0xfe000b` with its
// fields.
// Promise: A write can be undone: the undo `upnp config changed` carries command `0xfe000e` and the
// three settings as they were.
TEST_F(GatewaySettings, AWriteIsStoredNotifiedAndUndoable) {
  start();
  platform.forgetSent();
  const lm::message reply = write(settings({}, false, true));
  EXPECT_EQ(describe(reply), "{}");
  EXPECT_EQ(stored(), "{bool 0x2=0, bool 0x3=1}");

  const auto told = platform.notified(lm::cmd::changed);
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(describe(contentOf(told[0])), "{bool 0x2=0, bool 0x3=1}");
  const auto undo = platform.sentTo({66}, lm::cmd::addObject);
  ASSERT_EQ(undo.size(), 1U);
  EXPECT_EQ(describe(contentOf(undo[0])),
            "{string 0x1=\"upnp config changed\", message 0x2={u32 0xff0007=16646158, bool 0x1=0, "
            "bool 0x2=1, bool 0x3=1}}");
}

TEST_F(GatewaySettings, TheUndoHasTheValuesBeforeTheWrite) {
  serve();
  write(settings({}, false, false));
  platform.forgetSent();
  disable();
  const auto undo = platform.sentTo({66}, lm::cmd::addObject);
  ASSERT_EQ(undo.size(), 1U);
  EXPECT_EQ(describe(undo[0].get_message(0x28000002)),
            "{u32 0xff0007=16646158, bool 0x1=1, bool 0x2=0, bool 0x3=0}");
}

// Promise: A write changes the settings that it has, keeps the others and is answered with an empty
// message.
// Also proves [gateway-record].
TEST_F(GatewaySettings, AWriteOfOneSettingKeepsTheOthers) {
  start();
  write(settings({}, false));
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=1}");
  write(settings({}, {}, false));
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=0}");
  EXPECT_EQ(stored(), "{bool 0x3=0}");
}

// Promise: A write without a setting changes none, and saves an empty record.
TEST_F(GatewaySettings, AnEmptyWriteChangesNothingAndStoresNothing) {
  start();
  EXPECT_EQ(describe(write({})), "{}");
  EXPECT_EQ(stored(), "{}");
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
}

// Promise: A write that leaves `enabled` as it was restarts no interface.
TEST_F(GatewaySettings, AWriteThatDoesNotSwitchRestartsNothing) {
  serve();
  listen();
  write(settings(true, false, false));
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(announced(), Lines{});
}

// Promise [settings-live]: A write reaches the external interfaces that run, whether they may be
// disabled and whether they show the dummy rule.
// Promise: A change of the setting `allowDisableExternalInterface` takes effect at once, and
// applies to services that start later.
TEST_F(GatewaySettings, ANewAllowanceReachesTheConnection) {
  serve();
  platform.answer({20, 0}, lm::cmd::setObject, {});
  write(settings({}, false));
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
  EXPECT_TRUE(platform.sentTo({20, 0}, lm::cmd::setObject).empty());
  write(settings({}, true));
  EXPECT_EQ(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
  EXPECT_EQ(platform.sentTo({20, 0}, lm::cmd::setObject).size(), 1U);
}

TEST_F(GatewaySettings, ANewAllowanceSkipsAnObjectWhoseInterfaceIsAway) {
  serve();
  addObject(99, external);
  write(settings({}, false));
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
}

// Promise: Whether it may be disabled is known to an external interface from its start; the dummy
// rule is shown until the next write says otherwise.
TEST_F(GatewaySettings, TheAllowanceReachesAConnectionThatStartsLater) {
  start();
  write(settings(true, false, false));
  addObject(lan, internal);
  addObject(wan, external);
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
}

// Promise: A service that starts while the dummy is hidden still lists it, until the settings are
// written next.
// Also proves [settings-live].
TEST_F(GatewaySettings, TheDummyReachesAConnectionOnlyWithAWrite) {
  const std::string index = "<NewPortMappingIndex>0</NewPortMappingIndex>";
  const auto showsDummy = [&] {
    return invoke("/upnp/control/wanipconn-3", "GetGenericPortMappingEntry", index)
               .find("Dummy inactive rule") != std::string::npos;
  };
  start();
  write(settings(true, true, false));
  addObject(lan, internal);
  addObject(wan, external);
  EXPECT_TRUE(showsDummy());
  write(settings({}, {}, false));
  EXPECT_FALSE(showsDummy());
  write(settings({}, {}, true));
  EXPECT_TRUE(showsDummy());
}

// Promise: Switching on logs `enable`, subscribes to the interface table `[20, 0]`, commands
// `0x10004` and `0xfe000b`, and to the address table `[20, 1]`, command `0xfe000b`, and reads both.
TEST_F(GatewaySettings, EnablingReadsTheTablesAndSubscribes) {
  start();
  platform.forgetSent();
  enable();
  const auto subscriptions = platform.sentTo({0}, 0x11);
  ASSERT_EQ(subscriptions.size(), 3U);
  EXPECT_EQ(describe(contentOf(subscriptions[0])), "{u32 0x1=65540, u32[] 0x2=[20 0]}");
  EXPECT_EQ(describe(contentOf(subscriptions[1])), "{u32 0x1=16646155, u32[] 0x2=[20 0]}");
  EXPECT_EQ(describe(contentOf(subscriptions[2])), "{u32 0x1=16646155, u32[] 0x2=[20 1]}");
  EXPECT_EQ(platform.sentTo({20, 0}, lm::cmd::list).size(), 1U);
  EXPECT_EQ(platform.sentTo({20, 0}, lm::cmd::readAll).size(), 1U);
  EXPECT_EQ(platform.sentTo({20, 1}, lm::cmd::readAll).size(), 1U);
}

// Promise: Switching on cancels the pending end of the daemon.
TEST_F(GatewaySettings, EnablingCancelsTheLeave) {
  start();
  platform.advance(990ms);
  enable();
  platform.advance(10s);
  EXPECT_FALSE(platform.stopped());
}

// Promise [switch-off]: Switching off logs `disable`, says goodbye on the internal interfaces,
// stops all interfaces, ends the three subscriptions and lets the daemon leave after a second.
// Promise [goodbye-end]: Switching the gateway off, or ending it, withdraws everything.
TEST_F(GatewaySettings, DisablingStopsEverythingUnsubscribesAndLeaves) {
  serve();
  listen();
  disable();
  EXPECT_EQ(log(), (Lines{"disable", "stop int: LAN", "sendAdverts", "stop ext: WAN"}));
  EXPECT_EQ(announced(), marked("ssdp:byebye", allTargets(wan)));
  EXPECT_EQ(exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"), "refused");

  const auto ended = platform.sentTo({0}, 0x12);
  ASSERT_EQ(ended.size(), 3U);
  EXPECT_EQ(describe(contentOf(ended[0])), "{u32 0x1=65540, u32[] 0x2=[20 0]}");
  EXPECT_EQ(describe(contentOf(ended[1])), "{u32 0x1=16646155, u32[] 0x2=[20 0]}");
  EXPECT_EQ(describe(contentOf(ended[2])), "{u32 0x1=16646155, u32[] 0x2=[20 1]}");

  platform.advance(1s);
  EXPECT_TRUE(platform.stopped());
  stop();
  EXPECT_EQ(log(), Lines{"exit"});
}

// Promise: Switching off ends the event subscriptions to OSInfo.
// Also proves [subscription-off].
TEST_F(GatewaySettings, DisablingEndsTheSubscriptionsOfTheSystem) {
  serve();
  const std::string host = "HOST: 192.168.88.1:2828\r\n";
  const std::string reply =
      exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\n" + host +
               "NT: upnp:event\r\nCALLBACK: <http://192.168.88.10:5000/>\r\n\r\n");
  const size_t sid = reply.find("SID: ");
  ASSERT_NE(sid, std::string::npos) << reply;
  const std::string fields = host + reply.substr(sid, reply.find('\n', sid) + 1 - sid);
  EXPECT_EQ(status("SUBSCRIBE /upnp/event/osinfo", fields), "HTTP/1.1 200 OK");
  disable();
  enable();
  EXPECT_EQ(status("SUBSCRIBE /upnp/event/osinfo", fields), "HTTP/1.1 412 Precondition Failed");
}

TEST_F(GatewaySettings, CanBeSwitchedOffAndOnBeforeItLeaves) {
  serve();
  disable();
  platform.advance(500ms);
  listen();
  enable();
  // The LAN side starts first: with the targets as they were, then with those of the new WAN side.
  Lines expected = marked("ssdp:alive", allTargets(wan));
  for (const std::string& line : marked("ssdp:alive", wanTargets(wan))) expected.push_back(line);
  EXPECT_EQ(announced(), expected);
  platform.advance(10s);
  EXPECT_FALSE(platform.stopped());
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

// Promise [goodbye-rules]: A daemon that is asked to end while it is enabled switches off first and
// then logs `exit`: it says goodbye and removes its rules.
TEST_F(GatewaySettings, LeavingTheLoopDisables) {
  serve();
  listen();
  openPort(wan);
  (void)log();
  stop();
  EXPECT_EQ(log(), (Lines{"disable", "stop int: LAN", "sendAdverts", "stop ext: WAN", "exit"}));
  EXPECT_EQ(announced(), marked("ssdp:byebye", allTargets(wan)));
  EXPECT_EQ(platform.sentTo({20, 5}, lm::cmd::removeObject).size(), 1U);
  EXPECT_EQ(theGateway, nullptr);
}

// Promise: A daemon that has lost the platform ends in good order.
TEST_F(GatewaySettings, LeavesWithoutAPlatform) {
  serve();
  openPort(wan);
  platform.endConnection();
  (void)log();
  stop();
  EXPECT_EQ(log(), (Lines{"disable", "stop int: LAN", "sendAdverts", "stop ext: WAN",
                          "on cleanup remove nat failed: connection ended", "exit"}));
}

// Promise: A command that the daemon does not know is answered with the error `unknown command`.
TEST_F(GatewaySettings, AnswersAnUnknownCommandWithAnError) {
  start();
  EXPECT_EQ(lm::getError(platform.request(0, 0x4711)), "unknown command");
}

// Promise: A change that another source than the two tables notifies is answered with an empty
// message and ignored.
TEST_F(GatewaySettings, IgnoresChangesFromOtherSources) {
  serve();
  lm::message change;
  change.insert_message_array(lm::key::records, {addressRecord(99, lan, "10.0.0.1")});
  for (const lm::test::Path& source :
       {lm::test::Path{20, 5}, lm::test::Path{20}, lm::test::Path{20, 1, 0}, lm::test::Path{}}) {
    lm::message request = change;
    request.insert_u32_array(lm::key::source, source);
    EXPECT_EQ(describe(gateway->cmdUnknown(request, lm::cmd::changed)), "{}");
  }
  EXPECT_EQ(log(), Lines{});
}

// Promise: A read of the settings answers the three of them and never a configured interface.
// Promise: The object with the id of all ones is the settings; any other id is a configured
// interface or the error `no such object`.
TEST_F(GatewaySettings, TheObjectWithTheIdOfAllOnesIsTheSettings) {
  start();
  EXPECT_EQ(describe(gateway->getObject(0xFFFFFFFF)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
  addObject(lan, internal);
  EXPECT_EQ(describe(gateway->getObject(1)),
            "{u32 0xfe0001=1, bool 0xfe000a=0, u32 0x1=2, u32 0x2=2}");
  EXPECT_EQ(lm::getError(gateway->getObject(2)), "no such object");
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
}

}  // namespace
