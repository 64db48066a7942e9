// Start, settings and end of the gateway.

#include "core/GatewayFixture.h"
#include "platform/Keys.h"
#include "platform/Store.h"

namespace {

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

TEST_F(GatewaySettings, AsksForTheIdentityFirst) {
  start();
  const auto asked = platform.sentTo({65}, 0xfe000d);
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(describe(contentOf(asked[0])), "{}");
}

TEST_F(GatewaySettings, StartsDisabledWithoutASavedRecordAndLeavesAfterASecond) {
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
  platform.advance(99);
  EXPECT_FALSE(platform.stopped());
  platform.advance(1);
  EXPECT_TRUE(platform.stopped());
  stop();
  EXPECT_EQ(log(), Lines{"exit"});
}

TEST_F(GatewaySettings, StaysDisabledWhenTheRecordSaysSo) {
  store(settings(false, false, false));
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=0}");
  EXPECT_TRUE(platform.sentTo({20, 0}, lm::cmd::list).empty());
  platform.advance(100);
  EXPECT_TRUE(platform.stopped());
}

TEST_F(GatewaySettings, KeepsTheDefaultOfWhatTheRecordDoesNotSay) {
  store(settings({}, false));
  start();
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=1}");
}

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
  platform.advance(100000);
  EXPECT_FALSE(platform.stopped());
}

TEST_F(GatewaySettings, WorksWithoutAnIdentity) {
  platform.refuse({65}, 0xfe000d, "no such service");
  serve();
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-").size(), 1U);
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-WAN-DEVICE--3").size(), 1U);
}

TEST_F(GatewaySettings, WaitsNoLongerThanSixSecondsForTheIdentity) {
  platform.ignore({65}, 0xfe000d);
  const uint64_t before = platform.clock().now();
  start();
  EXPECT_EQ(platform.clock().now() - before, 6000U);
}

TEST_F(GatewaySettings, AWriteIsStoredToldAndUndoable) {
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

TEST_F(GatewaySettings, AWriteOfOneSettingKeepsTheOthers) {
  start();
  write(settings({}, false));
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=1}");
  write(settings({}, {}, false));
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=0, bool 0x3=0}");
  EXPECT_EQ(stored(), "{bool 0x3=0}");
}

TEST_F(GatewaySettings, AnEmptyWriteChangesNothingAndStoresNothing) {
  start();
  EXPECT_EQ(describe(write({})), "{}");
  EXPECT_EQ(stored(), "{}");
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
}

TEST_F(GatewaySettings, AWriteThatDoesNotSwitchRestartsNothing) {
  serve();
  listen();
  write(settings(true, false, false));
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(announced(), Lines{});
}

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

TEST_F(GatewaySettings, ANewAllowancePassesByAnObjectWhoseInterfaceIsAway) {
  serve();
  addObject(99, external);
  write(settings({}, false));
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
}

TEST_F(GatewaySettings, TheAllowanceReachesAConnectionThatStartsLater) {
  start();
  write(settings(true, false, false));
  addObject(lan, internal);
  addObject(wan, external);
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "ForceTermination").find("501"), std::string::npos);
}

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

TEST_F(GatewaySettings, EnablingCancelsTheLeave) {
  start();
  platform.advance(99);
  enable();
  platform.advance(1000);
  EXPECT_FALSE(platform.stopped());
}

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

  platform.advance(100);
  EXPECT_TRUE(platform.stopped());
  stop();
  EXPECT_EQ(log(), Lines{"exit"});
}

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
  platform.advance(50);
  listen();
  enable();
  // The LAN side starts first: with the targets as they were, then with those of the new WAN side.
  Lines expected = marked("ssdp:alive", allTargets(wan));
  for (const std::string& line : marked("ssdp:alive", wanTargets(wan))) expected.push_back(line);
  EXPECT_EQ(announced(), expected);
  platform.advance(1000);
  EXPECT_FALSE(platform.stopped());
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

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

TEST_F(GatewaySettings, LeavesWithoutAPlatform) {
  serve();
  openPort(wan);
  platform.endConnection();
  (void)log();
  stop();
  EXPECT_EQ(log(), (Lines{"disable", "stop int: LAN", "sendAdverts", "stop ext: WAN",
                          "on cleanup remove nat failed: connection ended", "exit"}));
}

TEST_F(GatewaySettings, AnswersAStrangeCommandWithAnError) {
  start();
  EXPECT_EQ(lm::getError(platform.request(0, 0x4711)), "unknown command");
}

TEST_F(GatewaySettings, IgnoresChangesOfStrangers) {
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

TEST_F(GatewaySettings, ObjectAllOnesIsTheSettings) {
  start();
  EXPECT_EQ(describe(gateway->getObject(0xFFFFFFFF)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
  addObject(lan, internal);
  EXPECT_EQ(describe(gateway->getObject(1)),
            "{u32 0xfe0001=1, bool 0xfe000a=0, u32 0x1=2, u32 0x2=2}");
  EXPECT_EQ(lm::getError(gateway->getObject(2)), "no such object");
  EXPECT_EQ(describe(platform.request(0, lm::cmd::get)), "{bool 0x1=0, bool 0x2=1, bool 0x3=1}");
}

}  // namespace
