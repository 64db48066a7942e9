// Interfaces that disappear: they are forgotten, but nothing of theirs is used after it is gone,
// and nothing is lost. Run it under AddressSanitizer.

#include <chrono>

#include "core/GatewayFixture.h"
#include "platform/Keys.h"

namespace {

using namespace std::chrono_literals;

class GatewayDeparted : public GatewayTest {
 protected:
  size_t rulesRemoved() const { return platform.sentTo({20, 5}, lm::cmd::removeObject).size(); }
};

// Promise [external-gone]: An external interface that is gone keeps its services, its search
// targets and its open ports until it is back.
TEST_F(GatewayDeparted, AWanThatDisappearsSendsNothingAndStaysReachable) {
  serve();
  openPort(wan);
  (void)log();
  listen();
  tellOfInterface(goneRecord(wan));
  EXPECT_EQ(log(), Lines{"rem dev: WAN"});
  EXPECT_EQ(announced(), Lines{});
  EXPECT_EQ(rulesRemoved(), 0U);
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "GetStatusInfo").find("200 OK"), std::string::npos);
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-3").size(), 1U);
  // Its notifications change nothing.
  (void)log();
  tellAddresses({addressRecord(wanAddress, wan, "45.45.45.9")});
  EXPECT_EQ(log(), Lines{"dev: 3 set address: 45.45.45.9 (12)"});
}

// Promise: Either flag of `0x82` in u32 `0x10003` says that an interface is gone, and no other flag
// does.
TEST_F(GatewayDeparted, EitherFlagSaysThatAnInterfaceIsGone) {
  serve();
  lm::message record = interfaceRecord(wan);
  record.insert_u32(0x10003, 0x02);
  tellOfInterface(record);
  record.insert_u32(0x10003, 0x7d);
  tellOfInterface(record);
  const Lines lines = log();
  EXPECT_EQ(lines[0], "rem dev: WAN");
  EXPECT_EQ(lines[1], "add dev: WAN");
}

// Promise: An interface that comes back is started in place of what it had left, without its old
// rules and without a goodbye.
TEST_F(GatewayDeparted, AWanThatComesBackRestartsWithoutItsOldRules) {
  serve();
  openPort(wan);
  tellOfInterface(goneRecord(wan));
  (void)log();
  listen();
  tellOfInterface(interfaceRecord(wan));
  EXPECT_EQ(log(), (Lines{"add dev: WAN", "set type: 1 3", "start ext: WAN",
                          "initial external addr: 45.45.45.2", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:alive", wanTargets(wan)));
  EXPECT_EQ(rulesRemoved(), 1U);
  EXPECT_EQ(found("ssdp:all"), allTargets(wan));
  EXPECT_NE(invoke("/upnp/control/wanipconn-3", "GetStatusInfo").find("200 OK"), std::string::npos);
  openPort(wan);
}

// Promise: An interface that comes back unconfigured takes down what it had left.
TEST_F(GatewayDeparted, AWanThatComesBackUnconfiguredLeavesNothingBehind) {
  serve();
  openPort(wan);
  tellOfInterface(goneRecord(wan));
  removeObject(2);
  EXPECT_EQ(rulesRemoved(), 0U);
  tellOfInterface(interfaceRecord(wan));
  EXPECT_EQ(rulesRemoved(), 1U);
  EXPECT_EQ(found("ssdp:all"), rootTargets);
  EXPECT_EQ(status("POST /upnp/control/wanipconn-3"), "HTTP/1.1 404 Not Found");
}

TEST_F(GatewayDeparted, AnInterfaceThatWasNotUsedLeavesNothingBehind) {
  serve();
  lm::message spare = interfaceRecord(wan);
  spare.insert_u32(lm::key::objectId, 7);
  spare.insert_string(0x10006, "SPARE");
  tellOfInterface(spare);
  lm::message gone = spare;
  gone.insert_u32(0x10003, 0x80);
  tellOfInterface(gone);
  tellOfInterface(gone);
  tellOfInterface(spare);
  EXPECT_EQ(log(), (Lines{"add dev: SPARE", "rem dev: SPARE", "rem dev: SPARE", "add dev: SPARE"}));
  EXPECT_EQ(found("ssdp:all"), allTargets(wan));
}

// Promise: Switching off, and the end of the daemon, take down what interfaces that are gone have
// left.
TEST_F(GatewayDeparted, DisablingEndsWhatADepartedWanLeftBehind) {
  serve();
  openPort(wan);
  tellOfInterface(goneRecord(wan));
  (void)log();
  disable();
  EXPECT_EQ(log(), (Lines{"disable", "stop int: LAN", "sendAdverts"}));
  EXPECT_EQ(rulesRemoved(), 1U);
  enable();
  EXPECT_EQ(found("ssdp:all"), allTargets(wan));
}

TEST_F(GatewayDeparted, LeavingEndsWhatDepartedInterfacesLeftBehind) {
  serve();
  openPort(wan);
  tellOfInterface(goneRecord(wan));
  tellOfInterface(goneRecord(lan));
  (void)log();
  stop();
  EXPECT_EQ(log(), (Lines{"disable", "exit"}));
  EXPECT_EQ(rulesRemoved(), 1U);
}

// Promise: An interface that is gone is the line `rem dev: NAME` and is forgotten: its sockets stay
// open and nothing says goodbye.
TEST_F(GatewayDeparted, ALanThatDisappearsStaysOpenAndGoesOnAdvertising) {
  serve();
  listen();
  tellOfInterface(goneRecord(lan));
  EXPECT_EQ(log(), Lines{"rem dev: LAN"});
  EXPECT_EQ(announced(), Lines{});
  platform.advance(3570s);
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
}

TEST_F(GatewayDeparted, ALanThatComesBackRestartsWithoutAGoodbye) {
  serve();
  platform.advance(3000s);
  tellOfInterface(goneRecord(lan));
  (void)log();
  listen();
  tellOfInterface(interfaceRecord(lan));
  EXPECT_EQ(log(), (Lines{"add dev: LAN", "set type: 2 2", "intr: 0 3232258049",
                          "start int: LAN 192.168.88.1", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
  EXPECT_EQ(found("upnp:rootdevice").size(), 1U);
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
  // The timer of the old record is gone with it.
  (void)announced();
  platform.advance(570s);
  EXPECT_EQ(announced(), Lines{});
}

TEST_F(GatewayDeparted, AConnectionOutlivesItsInterface) {
  serve();
  const lm::Fd client = connectToGateway();
  send(client, "GET /gateway.xml HTTP/1.1\r\n");
  platform.turn();
  goesAndComesBack(lan);
  disable();
  enable();
  send(client, "\r\n");
  EXPECT_NE(readToEnd(client).find("<URLBase>http://192.168.88.1:2828</URLBase>"),
            std::string::npos);
}

TEST_F(GatewayDeparted, AConnectionThatTimesOutOutlivesItsInterface) {
  serve();
  const lm::Fd client = connectToGateway();
  send(client, "GET");
  platform.turn();
  goesAndComesBack(lan);
  (void)log();
  platform.advance(10s);
  EXPECT_EQ(log(), Lines{"http request timeout"});
  EXPECT_EQ(readToEnd(client), "");
}

// Promise: A search on the socket of an interface that is gone is the line `findDevice fatal error`
// and the end of the process with status 1.
// Promise: A search on a discovery socket without an interface logs `findDevice fatal error` and
// ends the process with status 1.
TEST_F(GatewayDeparted, ASearchOnADepartedInterfaceIsFatal) {
  serve();
  tellOfInterface(goneRecord(lan));
  EXPECT_EXIT(
      {
        showLog();
        (void)found("upnp:rootdevice");
      },
      testing::ExitedWithCode(1), "findDevice fatal error");
}

TEST_F(GatewayDeparted, AConnectionToADepartedInterfaceIsFatal) {
  serve();
  tellOfInterface(goneRecord(lan));
  EXPECT_EXIT(
      {
        showLog();
        (void)exchange("GET /gateway.xml HTTP/1.1\r\n\r\n");
      },
      testing::ExitedWithCode(1), "oo jeaaa");
}

// Promise: Interfaces may come and go any number of times: nothing is left over and nothing is used
// after it is gone.
TEST_F(GatewayDeparted, InterfacesComeAndGoManyTimes) {
  serve();
  for (int i = 0; i < 20; ++i) {
    openPort(wan);
    goesAndComesBack(wan);
    goesAndComesBack(lan);
  }
  EXPECT_EQ(rulesRemoved(), 20U);
  EXPECT_EQ(found("ssdp:all"), allTargets(wan));
}

}  // namespace
