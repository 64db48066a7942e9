// Start and stop of an interface, on the LAN side and on the WAN side.

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "core/GatewayFixture.h"
#include "platform/Keys.h"
#include "support/Descriptors.h"
#include "support/RefusedCall.h"

namespace {

using namespace std::chrono_literals;

class GatewayInterfaces : public GatewayTest {};

// Promise: An interface without an address logs `intr: 0 0` only and opens nothing.
TEST_F(GatewayInterfaces, AnInterfaceWithoutAnAddressOpensNothing) {
  platformForgetsAddress(lanAddress);
  serve();
  setObject(1, {});
  EXPECT_EQ(log(), Lines{"intr: 0 0"});
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\n\r\n"), "refused");
}

// Promise: Stopping an interface that never started neither logs nor sends anything.
TEST_F(GatewayInterfaces, AnInterfaceThatNeverStartedStopsSilently) {
  platformForgetsAddress(lanAddress);
  serve();
  listen();
  removeObject(1);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(announced(), Lines{});
}

TEST_F(GatewayInterfaces, AListenerThatCouldBlockServesNothing) {
  start();
  addObject(lan, internal);
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}, EPERM, [&] { enable(); });
  EXPECT_EQ(std::ranges::count(log(), "fcntl O_NONBLOCK: Operation not permitted"), 1);
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\n\r\n"), "refused");
  EXPECT_EQ(found("ssdp:all"), rootTargets) << "the rest serves";
}

// Promise: A router without an external interface announces the four targets of its root device.
// Promise [targets-root]: A router without an external interface is found with the four targets of
// its root.
TEST_F(GatewayInterfaces, TheRootAloneIsAnnouncedWithFourTargets) {
  start();
  addObject(lan, internal);
  listen();
  enable();
  EXPECT_EQ(announced(), marked("ssdp:alive", rootTargets));
  EXPECT_EQ(found("ssdp:all"), rootTargets);
}

// Promise [advert-period]: Everything is announced again each 3570 seconds, thirty seconds before
// the announcements run out, as long as the interface serves.
TEST_F(GatewayInterfaces, EverythingIsAnnouncedAgainBeforeItRunsOut) {
  serve();
  listen();
  platform.advance(3570s - 10ms);
  EXPECT_EQ(announced(), Lines{});
  platform.advance(10ms);
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
  platform.advance(3570s);
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
  removeObject(1);
  (void)announced();
  platform.advance(35'700s);
  EXPECT_EQ(announced(), Lines{});
}

// Promise [advert-count]: The 3570 seconds count from the interface's last start.
TEST_F(GatewayInterfaces, ANewStartCountsFromItsOwnTime) {
  serve();
  platform.advance(3500s);
  setObject(1, {});
  listen();
  platform.advance(70s);
  EXPECT_EQ(announced(), Lines{});
  platform.advance(3500s);
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
}

// Also proves [goodbye].
TEST_F(GatewayInterfaces, ALanSideHasTwoSocketsUntilItStops) {
  start();
  enable();
  const size_t before = lm::test::openDescriptors();
  addObject(lan, internal);
  EXPECT_EQ(lm::test::openDescriptors(), before + 2);
  removeObject(1);
  EXPECT_EQ(lm::test::openDescriptors(), before);
}

// Promise: Sockets are bound to an interface's name, string `0x10005`, and the log shows its
// display name, string `0x10006`.
// Promise: A socket that cannot be opened is missing, which is logged, and the daemon goes on.
// Promise: A socket that cannot be opened is reported, and the interface counts as started without
// it.
TEST_F(GatewayInterfaces, SocketsThatCannotBeOpenedAreMissing) {
  lm::message record = interfaceRecord(lan);
  record.insert_string(0x10005, "nosuch0");
  platformHasInterface(lan, record);
  start();
  addObject(lan, internal);
  enable();
  const Lines lines = log();
  const auto start = std::find(lines.begin(), lines.end(), "start int: LAN 192.168.88.1");
  ASSERT_NE(start, lines.end());
  EXPECT_EQ(Lines(start + 1, start + 7),
            (Lines{"udp setsockopt SO_BINDTODEVICE: No such device",
                   "setsockopt SO_BINDTODEVICE: No such device", "sendAdverts",
                   "advert sendto failed: Bad file descriptor",
                   "advert sendto failed: Bad file descriptor",
                   "advert sendto failed: Bad file descriptor"}));
  disable();
  EXPECT_EQ(log()[1], "stop int: LAN");
}

// Promise [two-externals]: Two external interfaces, say 3 and 7, are two trees with the stems
// `wanipconn-3` and `wanipconn-7`, whose descriptions are the same files `wanipconn.xml` and
// `wancommonifcfg.xml`.
// Promise: Of two external interfaces one stops without the other.
TEST_F(GatewayInterfaces, TwoWanSidesAreTwoTrees) {
  platformHasInterface(7, {});
  serve();
  addObject(7, external);
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-3").size(), 1U);
  EXPECT_EQ(found("uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-7").size(), 1U);
  EXPECT_EQ(found("urn:schemas-upnp-org:service:WANIPConnection:1").size(), 2U);
  const std::string document = exchange("GET /gateway.xml HTTP/1.1\r\n\r\n");
  for (const char* url :
       {"/wanipconn-3.xml", "/wanipconn-7.xml", "/wancommonifc-3.xml", "/wancommonifc-7.xml",
        "/upnp/control/wanipconn-3", "/upnp/event/wancommonifc-7"}) {
    EXPECT_NE(document.find(url), std::string::npos) << url;
  }
  // One of them goes, the other stays.
  removeObject(2);
  EXPECT_EQ(status("POST /upnp/control/wanipconn-3"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(status("POST /upnp/control/wanipconn-7"), "HTTP/1.1 400 Bad Request");
}

// Promise: An external interface that starts before any internal one is not announced then, but
// later with everything else.
// Promise: An external interface that starts while no LAN is served is announced with the LAN that
// starts later.
TEST_F(GatewayInterfaces, AWanThatStartsBeforeAnyLanIsAnnouncedWithTheLan) {
  start();
  addObject(wan, external);
  enable();
  const Lines lines = log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "sendAdverts"), 0);
  listen();
  addObject(lan, internal);
  EXPECT_EQ(announced(), marked("ssdp:alive", allTargets(wan)));
}

// Promise: Switching off stops the interfaces in the order in which they were configured; an
// internal one says goodbye also for an external one that stopped before it.
TEST_F(GatewayInterfaces, InterfacesStopInTheOrderOfTheirObjects) {
  start();
  addObject(wan, external);
  addObject(lan, internal);
  enable();
  (void)log();
  listen();
  disable();
  EXPECT_EQ(log(),
            (Lines{"disable", "stop ext: WAN", "sendAdverts", "stop int: LAN", "sendAdverts"}));
  // The LAN side still has the targets of the WAN side that was withdrawn before it.
  Lines expected = marked("ssdp:byebye", wanTargets(wan));
  for (const std::string& line : marked("ssdp:byebye", allTargets(wan))) expected.push_back(line);
  EXPECT_EQ(announced(), expected);
}

// Promise: The targets of an external interface that stopped are still found until the targets are
// built again, although the description no longer has it.
// Promise: An external interface that was withdrawn is still found until another one starts or
// stops.
TEST_F(GatewayInterfaces, AWanThatWasWithdrawnIsFoundUntilTheTargetsAreRebuilt) {
  platformHasInterface(7, {});
  serve();
  const std::string udn = "uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-3";
  removeObject(2);
  EXPECT_EQ(found(udn), Lines{udn});
  EXPECT_EQ(exchange("GET /gateway.xml HTTP/1.1\r\n\r\n").find(udn), std::string::npos);
  addObject(7, external);
  EXPECT_EQ(found(udn), Lines{});
}

TEST_F(GatewayInterfaces, TheDescriptionThatIsServedFollowsTheTree) {
  platformHasInterface(7, {});
  serve();
  const auto expectWans = [this](ptrdiff_t count, const char* when) {
    const std::string served = exchange("GET /gateway.xml HTTP/1.1\r\n\r\n");
    XMLNode root = gateway->getDescription();
    root.addSubNode("URLBase", "http://192.168.88.1:2828");
    EXPECT_TRUE(served.ends_with("\r\n\r\n" + root.getXML())) << when << served;
    EXPECT_EQ(std::ssize(gateway->UpnpRootDevice::devices), count) << when;
  };
  expectWans(1, "at first");
  addObject(7, external);
  expectWans(2, "one more starts");
  removeObject(2);
  expectWans(1, "one stops");
  tellOfInterface(goneRecord(7));
  expectWans(1, "one is gone without a stop");
  tellOfInterface(interfaceRecord(7));
  expectWans(1, "it came back");
}

// Also proves [targets-withdrawn], [mapping-interface].
TEST_F(GatewayInterfaces, AWanThatStopsRemovesItsRulesAndItsServices) {
  serve();
  openPort(wan);
  removeObject(2);
  const auto removed = platform.sentTo({20, 5}, lm::cmd::removeObject);
  ASSERT_EQ(removed.size(), 1U);
  EXPECT_EQ(lm::test::describe(lm::test::contentOf(removed[0])), "{u32 0xfe0001=77}");
  for (const char* line :
       {"POST /upnp/control/wanipconn-3", "POST /upnp/control/wancommonifc-3",
        "SUBSCRIBE /upnp/event/wanipconn-3", "SUBSCRIBE /upnp/event/wancommonifc-3"}) {
    EXPECT_EQ(status(line), "HTTP/1.1 404 Not Found") << line;
  }
}

}  // namespace
