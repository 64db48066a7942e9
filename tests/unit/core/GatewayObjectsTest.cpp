// The configured interfaces.

#include "core/GatewayFixture.h"
#include "platform/Keys.h"

namespace {

using lm::test::describe;

class GatewayObjects : public GatewayTest {
 protected:
  static lm::message disabledFlag(bool disabled) {
    lm::message fields;
    fields.insert_bool(lm::key::disabled, disabled);
    return fields;
  }
  static lm::message interfaceField(uint32_t interface) {
    lm::message fields;
    fields.insert_u32(1, interface);
    return fields;
  }
  static lm::message typeField(uint32_t type) {
    lm::message fields;
    fields.insert_u32(2, type);
    return fields;
  }
};

// Promise [gateway-numbers]: Configured interfaces are numbered from 1, and the answer to an
// addition has the number.
// Promise: A configured interface that is added while the daemon is enabled starts at once.
// Promise: An internal interface that has an address is the lines `intr: STARTED NUMBER`, `start
// int: NAME ADDRESS` and `sendAdverts`; one without an address opens nothing.
// Promise: An external interface that starts is the line `start ext: NAME`, one that stops `stop
// ext: NAME`.
// Promise [targets-external]: An external interface that starts is announced alone, with the six
// targets of its tree, on every internal interface that has started.
// Promise: An interface that starts serving logs `intr: 0 <address as a number>` and `start int:
// <name> <address>`, opens a discovery and an HTTP socket and announces everything.
TEST_F(GatewayObjects, AnObjectThatIsAddedStartsItsInterface) {
  start();
  enable();
  listen();
  (void)log();
  EXPECT_EQ(describe(addObject(lan, internal)), "{u32 0xfe0001=1}");
  EXPECT_EQ(log(), (Lines{"intr: 0 3232258049", "start int: LAN 192.168.88.1", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:alive", rootTargets));
  EXPECT_EQ(describe(addObject(wan, external)), "{u32 0xfe0001=2}");
  EXPECT_EQ(log(), (Lines{"start ext: WAN", "initial external addr: 45.45.45.2", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:alive", wanTargets(wan)));
}

// Promise [interface-once]: A second addition of an interface is refused with error `0xfe0009`,
// `Interface already added`, also while the platform does not know it, and nothing changes.
TEST_F(GatewayObjects, AnInterfaceIsAddedOnce) {
  serve();
  EXPECT_EQ(lm::getError(addObject(lan, external)), "Interface already added");
  EXPECT_EQ(addObject(lan, internal).get_u32(lm::key::errorCode), 0xfe0009U);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

// Promise [interface-early]: An interface that the platform does not know yet may be configured,
// changed to and removed; it starts when it appears.
// Also proves [interface-once].
TEST_F(GatewayObjects, AnInterfaceNotSeenYetCanBeAdded) {
  serve();
  EXPECT_EQ(describe(addObject(4711, internal)), "{u32 0xfe0001=3}");
  EXPECT_EQ(lm::getError(addObject(4711, internal)), "Interface already added");
  EXPECT_EQ(log(), Lines{});
}

// Promise: A configured interface that is disabled when it is added starts nothing.
TEST_F(GatewayObjects, ADisabledObjectStartsNothing) {
  start();
  enable();
  (void)log();
  addObject(lan, internal, true);
  addObject(wan, external, true);
  EXPECT_EQ(log(), Lines{});
  // The type is not on the device either: an address that moves starts nothing.
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.9")});
  EXPECT_EQ(log(), (Lines{"dev: 2 set address: 192.168.88.9 (11)", "dev: 2 ip: 192.168.88.9"}));
  disable();
  EXPECT_EQ(log(), Lines{"disable"});
}

// Promise: A type other than external and internal starts nothing.
TEST_F(GatewayObjects, AnObjectOfAnotherTypeStartsNothing) {
  start();
  enable();
  (void)log();
  EXPECT_FALSE(lm::isError(addObject(lan, 3)));
  EXPECT_FALSE(lm::isError(addObject(wan, 0)));
  EXPECT_EQ(log(), Lines{});
}

// Promise: A configured interface that is added while the daemon is not enabled opens nothing until
// it is.
TEST_F(GatewayObjects, AnObjectAddedWhileDisabledOpensNothing) {
  start();
  // The interface is known, since it was enabled before.
  enable();
  disable();
  (void)log();
  addObject(lan, internal);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\n\r\n"), "refused");
  enable();
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

// Promise: Disabling a configured interface stops it for good: until it is enabled no address
// starts it.
TEST_F(GatewayObjects, DisablingAnObjectStopsItsInterfaceForGood) {
  serve();
  listen();
  EXPECT_EQ(describe(setObject(1, disabledFlag(true))), "{}");
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:byebye", allTargets(wan)));
  // Its type is gone: an address that moves starts nothing.
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.9")});
  EXPECT_EQ(log(), (Lines{"dev: 2 set address: 192.168.88.9 (11)", "dev: 2 ip: 192.168.88.9"}));
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.1")});
  (void)log();
  setObject(1, disabledFlag(false));
  EXPECT_EQ(log(), (Lines{"intr: 0 3232258049", "start int: LAN 192.168.88.1", "sendAdverts"}));
}

// Promise: Every change of a configured interface restarts it, even an empty one.
TEST_F(GatewayObjects, EverySetRestartsTheInterface) {
  serve();
  openPort(wan);
  (void)log();
  setObject(2, {});
  EXPECT_EQ(log(), (Lines{"stop ext: WAN", "sendAdverts", "start ext: WAN",
                          "initial external addr: 45.45.45.2", "sendAdverts"}));
  EXPECT_EQ(platform.sentTo({20, 5}, lm::cmd::removeObject).size(), 1U);
  setObject(1, interfaceField(lan));
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts", "intr: 0 3232258049",
                          "start int: LAN 192.168.88.1", "sendAdverts"}));
}

// Promise: A change to an interface that another object has is refused with error `0xfe0009`,
// `Interface already set`, and nothing changes; to its own interface it is accepted.
TEST_F(GatewayObjects, AnInterfaceOfAnotherObjectCannotBeTaken) {
  serve();
  EXPECT_EQ(lm::getError(setObject(2, interfaceField(lan))), "Interface already set");
  EXPECT_EQ(setObject(2, interfaceField(lan)).get_u32(lm::key::errorCode), 0xfe0009U);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(describe(setObject(2, interfaceField(wan))), "{}");
}

// Promise: A change to another interface stops the old one and starts the new one.
TEST_F(GatewayObjects, AnObjectThatMovesStopsOneInterfaceAndStartsAnother) {
  platformHasInterface(7, {});
  serve();
  listen();
  setObject(2, interfaceField(7));
  EXPECT_EQ(log(), (Lines{"stop ext: WAN", "sendAdverts", "start ext: WAN",
                          "initial external addr: 0.0.0.0", "sendAdverts"}));
  Lines expected = marked("ssdp:byebye", wanTargets(wan));
  for (const std::string& line : marked("ssdp:alive", wanTargets(7))) expected.push_back(line);
  EXPECT_EQ(announced(), expected);
  EXPECT_EQ(status("POST /upnp/control/wanipconn-3"), "HTTP/1.1 404 Not Found");
}

// Promise: A change of the type stops the one side and starts the other.
TEST_F(GatewayObjects, AnObjectThatChangesItsTypeChangesSides) {
  serve();
  setObject(1, typeField(external));
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts", "start ext: LAN",
                          "initial external addr: 192.168.88.1"}));
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\n\r\n"), "refused");
  setObject(1, typeField(internal));
  EXPECT_EQ(log(), (Lines{"stop ext: LAN", "intr: 0 3232258049", "start int: LAN 192.168.88.1",
                          "sendAdverts"}));
  EXPECT_EQ(status("POST /upnp/control/wanipconn-2"), "HTTP/1.1 404 Not Found");
}

// Also proves [interface-early].
TEST_F(GatewayObjects, AnObjectThatMovesToAnInterfaceNotSeenStopsTheOldOne) {
  serve();
  EXPECT_EQ(describe(setObject(1, interfaceField(4711))), "{}");
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts"}));
}

// Promise: A configured interface that is removed stops.
// Promise: An internal interface that stops is the line `stop int: NAME`, and no line when it was
// not started.
// Promise [targets-withdrawn]: An external interface that stops withdraws its six targets, ends its
// subscriptions, removes its rules, and its services are no longer found.
// Promise [goodbye]: An interface that stops logs `stop int: <name>`, withdraws every target and
// closes both sockets.
// Also proves [advert-external].
TEST_F(GatewayObjects, AnObjectThatIsRemovedStopsItsInterface) {
  serve();
  listen();
  EXPECT_EQ(describe(removeObject(2)), "{}");
  EXPECT_EQ(log(), (Lines{"stop ext: WAN", "sendAdverts"}));
  EXPECT_EQ(announced(), marked("ssdp:byebye", wanTargets(wan)));
  removeObject(1);
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts"}));
  EXPECT_EQ(lm::getError(removeObject(1)), "no such object");
}

// Also proves [interface-early].
TEST_F(GatewayObjects, AnObjectOfAnInterfaceNotSeenCanBeRemoved) {
  serve();
  addObject(4711, internal);
  EXPECT_EQ(describe(removeObject(3)), "{}");
  EXPECT_EQ(log(), Lines{});
}

}  // namespace
