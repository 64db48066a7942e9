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

TEST_F(GatewayObjects, AnInterfaceIsAddedOnce) {
  serve();
  EXPECT_EQ(lm::getError(addObject(lan, external)), "Interface already added");
  EXPECT_EQ(addObject(lan, internal).get_u32(lm::key::errorCode), 0xfe0009U);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

TEST_F(GatewayObjects, AnInterfaceNotSeenYetIsAddedAllTheSame) {
  serve();
  EXPECT_EQ(describe(addObject(4711, internal)), "{u32 0xfe0001=3}");
  EXPECT_EQ(lm::getError(addObject(4711, internal)), "Interface already added");
  EXPECT_EQ(log(), Lines{});
}

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

TEST_F(GatewayObjects, AnObjectOfAnotherTypeStartsNothing) {
  start();
  enable();
  (void)log();
  EXPECT_FALSE(lm::isError(addObject(lan, 3)));
  EXPECT_FALSE(lm::isError(addObject(wan, 0)));
  EXPECT_EQ(log(), Lines{});
}

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

TEST_F(GatewayObjects, AnInterfaceOfAnotherObjectCannotBeTaken) {
  serve();
  EXPECT_EQ(lm::getError(setObject(2, interfaceField(lan))), "Interface already set");
  EXPECT_EQ(setObject(2, interfaceField(lan)).get_u32(lm::key::errorCode), 0xfe0009U);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(describe(setObject(2, interfaceField(wan))), "{}");
}

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

TEST_F(GatewayObjects, AnObjectThatMovesToAnInterfaceNotSeenStopsTheOld) {
  serve();
  EXPECT_EQ(describe(setObject(1, interfaceField(4711))), "{}");
  EXPECT_EQ(log(), (Lines{"stop int: LAN", "sendAdverts"}));
}

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

TEST_F(GatewayObjects, AnObjectOfAnInterfaceNotSeenIsRemovedAllTheSame) {
  serve();
  addObject(4711, internal);
  EXPECT_EQ(describe(removeObject(3)), "{}");
  EXPECT_EQ(log(), Lines{});
}

}  // namespace
