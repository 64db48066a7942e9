// What the platform notifies about its interfaces and addresses.

#include <chrono>

#include "core/GatewayFixture.h"
#include "platform/Keys.h"

namespace {

using namespace std::chrono_literals;

using lm::test::contentOf;
using lm::test::describe;

class GatewayTracking : public GatewayTest {
 protected:
  lm::message stateRecord(uint32_t id, bool disabled, bool running) const {
    lm::message record = interfaceRecord(id);
    record.insert_bool(lm::key::disabled, disabled);
    record.insert_bool(0x1000e, running);
    return record;
  }
  static lm::message removedRecord(uint32_t id, uint32_t interface, const std::string& address,
                                   bool disabled = false) {
    lm::message record = addressRecord(id, interface, address, disabled);
    record.insert_u32(lm::key::removed, 1);
    return record;
  }
  std::string externalAddress() { return valueOf("GetExternalIPAddress", "NewExternalIPAddress"); }
  std::string connectionStatus() { return valueOf("GetStatusInfo", "NewConnectionStatus"); }

 private:
  std::string valueOf(const std::string& action, const std::string& argument) {
    const std::string reply = invoke("/upnp/control/wanipconn-3", action);
    const size_t start = reply.find("<" + argument + ">") + argument.size() + 2;
    return reply.substr(start, reply.find('<', start) - start);
  }
};

// Promise [page-field]: The interface list is read with command 1 from `[20, 0]`, page by page: the
// cursor u32 `0x8fe0003` is absent in the first request and then the one of the last page.
TEST_F(GatewayTracking, TheListIsReadPageByPage) {
  std::vector<std::string> cursors;
  platform.onRequest({20, 0}, lm::cmd::list, [&](const lm::message& request) {
    cursors.push_back(describe(contentOf(request)));
    lm::message page;
    if (cursors.size() == 1) {
      page.insert_message_array(lm::key::records, {interfaceRecord(lan)});
      page.insert_u32(lm::key::cursor, lan);
    } else {
      page.insert_message_array(lm::key::records, {interfaceRecord(wan)});
      page.insert_u32(lm::key::cursor, lm::none);
    }
    return page;
  });
  start();
  enable();
  EXPECT_EQ(cursors, (Lines{"{}", "{u32 0xfe0003=2}"}));
  const Lines lines = log();
  EXPECT_EQ(lines[0], "add dev: LAN");
  EXPECT_EQ(lines[1], "add dev: WAN");
}

// Promise: A list that fails, or has no records, is the line `device::CMD_GETDEVS failed: ` and the
// error text, and the start continues with what was read.
TEST_F(GatewayTracking, AListThatFailsIsLoggedAndTheStartGoesOn) {
  platform.refuse({20, 0}, lm::cmd::list, "no such service");
  start();
  enable();
  EXPECT_EQ(log()[0], "device::CMD_GETDEVS failed: no such service");
  tellOfInterface(interfaceRecord(lan));
  EXPECT_EQ(log().back(), "add dev: LAN");
}

TEST_F(GatewayTracking, AnAnswerWithoutAListIsLogged) {
  platform.answer({20, 0}, lm::cmd::list, {});
  start();
  enable();
  EXPECT_EQ(log()[0], "device::CMD_GETDEVS failed: ");
}

// Promise: A cursor that does not rise ends the list with the line `device::CMD_GETDEVS failed:
// cursor does not rise`.
TEST_F(GatewayTracking, ACursorThatDoesNotRiseEndsTheList) {
  lm::message page;
  page.insert_message_array(lm::key::records, {interfaceRecord(lan)});
  page.insert_u32(lm::key::cursor, lan);
  platform.answer({20, 0}, lm::cmd::list, page);
  start();
  enable();
  EXPECT_EQ(platform.sentTo({20, 0}, lm::cmd::list).size(), 2U);
  EXPECT_EQ(log()[2], "device::CMD_GETDEVS failed: cursor does not rise");
}

// Promise: A record of a known interface is the line `set dev: NAME (ID)` and takes the place of
// the last one.
TEST_F(GatewayTracking, AKnownInterfaceTakesItsNewRecord) {
  serve();
  lm::message renamed = interfaceRecord(lan);
  renamed.insert_string(0x10006, "Living room");
  tellOfInterface(renamed);
  EXPECT_EQ(log(), Lines{"set dev: Living room (2)"});
  removeObject(1);
  EXPECT_EQ(log()[0], "stop int: Living room");
}

// Promise: An interface that appears is the line `add dev: NAME`, and what is configured for it the
// line `set type: TYPE ID` and its start.
// Promise: An interface that appears has the addresses that were notified before it, and uses the
// smallest of them.
TEST_F(GatewayTracking, AnInterfaceThatAppearsTakesTheAddressesThatCameBefore) {
  serve();
  addObject(7, external);
  tellAddresses({addressRecord(50, 7, "45.45.45.200"), addressRecord(51, 7, "45.45.45.100")});
  EXPECT_EQ(log(), (Lines{"dev: 7 add address: 45.45.45.200 (50)",
                          "dev: 7 add address: 45.45.45.100 (51)"}));
  tellOfInterface(interfaceRecord(7));
  EXPECT_EQ(log(), (Lines{"add dev: WAN", "set type: 1 7", "start ext: WAN",
                          "initial external addr: 45.45.45.100", "sendAdverts"}));
}

// Promise: An interface that appears is started even when its configuration is disabled.
TEST_F(GatewayTracking, ADisabledObjectIsStartedWhenItsInterfaceAppears) {
  serve();
  addObject(7, external, true);
  tellOfInterface(interfaceRecord(7));
  EXPECT_EQ(log()[2], "start ext: WAN");
}

// Promise: An interface that appears while the daemon is not enabled starts nothing.
TEST_F(GatewayTracking, AnInterfaceThatAppearsWhileDisabledStartsNothing) {
  start();
  addObject(lan, internal);
  lm::message record = interfaceRecord(lan);
  (void)gateway->cmdUnknown(record, lm::cmd::interfaceChanged);
  EXPECT_EQ(log(), (Lines{"add dev: LAN", "set type: 2 2"}));
}

// Promise: The state of an external interface is the status of its connection: `Disconnected` when
// it is disabled, else `Connected` when it runs, else `Connecting`.
// Promise [ip-status]: The status is `Disconnected` while the interface is disabled, else
// `Connected` while it is running, else `Connecting`.
TEST_F(GatewayTracking, TheStateOfAnInterfaceIsTheStatusOfItsConnection) {
  serve();
  EXPECT_EQ(connectionStatus(), "Connected");
  tellStates({stateRecord(wan, false, false)});
  EXPECT_EQ(connectionStatus(), "Connecting");
  tellStates({stateRecord(wan, true, false)});
  EXPECT_EQ(connectionStatus(), "Disconnected");
  tellStates({stateRecord(wan, true, true)});
  EXPECT_EQ(connectionStatus(), "Disconnected");
}

// Promise: The state of an interface is the line `dev: ID disabled: 0 running: 1`, and a record may
// leave out what has not changed.
TEST_F(GatewayTracking, AStateRecordMayOmitWhatHasNotChanged) {
  serve();
  tellStates({stateRecord(wan, true, true)});
  (void)log();
  lm::message record;
  record.insert_u32(lm::key::objectId, wan);
  record.insert_bool(lm::key::disabled, false);
  tellStates({record});
  EXPECT_EQ(log(), Lines{"dev: 3 disabled: 0 running: 1"});
  tellStates({stateRecord(wan, true, true)});
  (void)log();
  lm::message other;
  other.insert_u32(lm::key::objectId, wan);
  other.insert_bool(0x1000e, false);
  tellStates({other});
  EXPECT_EQ(log(), Lines{"dev: 3 disabled: 1 running: 0"});
}

// Also proves [ip-status].
TEST_F(GatewayTracking, AConnectionThatStartsKnowsTheState) {
  serve();
  const struct {
    bool disabled;
    bool running;
    const char* status;
  } states[] = {
      {false, true, "Connected"},
      {false, false, "Connecting"},
      {true, false, "Disconnected"},
      {true, true, "Disconnected"},
  };
  for (const auto& [disabled, running, status] : states) {
    tellStates({stateRecord(wan, disabled, running)});
    setObject(2, {});  // starts another connection
    EXPECT_EQ(connectionStatus(), status);
  }
}

// Promise: A notification of states or addresses without a record means that any may have changed:
// the whole table is read.
TEST_F(GatewayTracking, AnEmptyStateChangeReadsTheWholeTable) {
  serve();
  platformHasInterface(wan, stateRecord(wan, false, false));
  platform.notify(lm::cmd::changed, {20, 0});
  EXPECT_EQ(log(), (Lines{"dev: 2 disabled: 0 running: 1", "dev: 3 disabled: 0 running: 0"}));
  tellStates({});
  EXPECT_EQ(platform.sentTo({20, 0}, lm::cmd::readAll).size(), 2U);
}

// Promise: Records of unknown interfaces and address objects are ignored.
TEST_F(GatewayTracking, RecordsOfUnknownObjectsAreIgnored) {
  serve();
  tellStates({stateRecord(4711, true, true), lm::message()});
  tellOfInterface(goneRecord(4711));
  EXPECT_EQ(log(), Lines{"rem dev: WAN"});
  tellAddresses({removedRecord(99, lan, "192.168.88.1")});
  EXPECT_EQ(log(), Lines{});
}

// Promise: A new address is the line `dev: INTERFACE add address: ADDRESS (ID)`, a changed one `set
// address` and a removed one `remove address`.
// Promise [address-kept]: Another address that comes or goes, even a smaller one, changes nothing
// as long as the current one is there.
TEST_F(GatewayTracking, ASecondAddressChangesNothing) {
  serve();
  listen();
  tellAddresses({addressRecord(20, lan, "192.168.88.2"), addressRecord(21, lan, "10.0.0.1")});
  EXPECT_EQ(log(),
            (Lines{"dev: 2 add address: 192.168.88.2 (20)", "dev: 2 add address: 10.0.0.1 (21)"}));
  tellAddresses({removedRecord(20, lan, "192.168.88.2")});
  EXPECT_EQ(log(), Lines{"dev: 2 remove address: 192.168.88.2 (20)"});
  EXPECT_EQ(announced(), Lines{});
}

// Promise [address-smallest]: Of several addresses the smallest serves, by the order of the dotted
// numbers.
TEST_F(GatewayTracking, TheSmallestAddressIsTheFirstToServe) {
  // As numbers in memory of this machine the order would be another one.
  platformHasAddress(10, addressRecord(10, lan, "192.168.88.200"));
  platformHasAddress(13, addressRecord(13, lan, "200.1.1.1"));
  platformForgetsAddress(lanAddress);
  start();
  addObject(lan, internal);
  enable();
  disable();
  (void)log();
  enable();
  EXPECT_EQ(log()[2], "intr: 0 3232258248");
}

// Promise: A change of an interface's own address is the line `dev: INTERFACE ip: ADDRESS`, with
// `0.0.0.0` for none.
// Promise: When the current address goes, an internal interface says goodbye and announces itself
// from the smallest of those that remain.
// Also proves [goodbye-address].
TEST_F(GatewayTracking, AnotherAddressReplacesTheCurrentOneWhenThatGoes) {
  serve();
  tellAddresses({addressRecord(20, lan, "192.168.88.2"), addressRecord(21, lan, "10.0.0.1")});
  (void)log();
  listen();
  tellAddresses({removedRecord(lanAddress, lan, "192.168.88.1")});
  EXPECT_EQ(log(), (Lines{"dev: 2 remove address: 192.168.88.1 (11)", "dev: 2 ip: 10.0.0.1",
                          "stop int: LAN", "sendAdverts", "intr: 0 167772161",
                          "start int: LAN 10.0.0.1", "sendAdverts"}));
  Lines expected = marked("ssdp:byebye", allTargets(wan));
  for (const std::string& line : marked("ssdp:alive", allTargets(wan))) expected.push_back(line);
  EXPECT_EQ(announced(), expected);
}

// Promise [address-last]: When its last address goes, an internal interface says goodbye and
// closes; the next address opens it again.
TEST_F(GatewayTracking, TheLanSideStopsWhenItsLastAddressGoes) {
  serve();
  listen();
  tellAddresses({removedRecord(lanAddress, lan, "192.168.88.1")});
  EXPECT_EQ(log(), (Lines{"dev: 2 remove address: 192.168.88.1 (11)", "dev: 2 ip: 0.0.0.0",
                          "stop int: LAN", "sendAdverts"}));
  tellAddresses({addressRecord(30, lan, "192.168.88.1")});
  EXPECT_EQ(log(), (Lines{"dev: 2 add address: 192.168.88.1 (30)", "dev: 2 ip: 192.168.88.1",
                          "intr: 0 3232258049", "start int: LAN 192.168.88.1", "sendAdverts"}));
}

// Promise: An address that is disabled does not serve.
TEST_F(GatewayTracking, AnAddressThatIsDisabledDoesNotServe) {
  serve();
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.1", true)});
  EXPECT_EQ(log(), (Lines{"dev: 2 set address: 192.168.88.1 (11)", "dev: 2 ip: 0.0.0.0",
                          "stop int: LAN", "sendAdverts"}));
  tellAddresses({addressRecord(31, lan, "192.168.88.9", true)});
  EXPECT_EQ(log(), Lines{"dev: 2 add address: 192.168.88.9 (31)"});
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.1", false)});
  EXPECT_EQ(log().back(), "sendAdverts");
}

TEST_F(GatewayTracking, AnAddressThatChangesWhileDisabledStartsNothing) {
  serve();
  disable();
  (void)log();
  lm::message change;
  change.insert_u32_array(lm::key::source, {20, 1});
  change.insert_message_array(lm::key::records, {addressRecord(lanAddress, lan, "192.168.88.2"),
                                                 addressRecord(wanAddress, wan, "45.45.45.9")});
  (void)gateway->cmdUnknown(change, lm::cmd::changed);
  EXPECT_EQ(log(), (Lines{"dev: 2 set address: 192.168.88.2 (11)", "dev: 2 ip: 192.168.88.2",
                          "dev: 3 set address: 45.45.45.9 (12)", "dev: 3 ip: 45.45.45.9"}));
  EXPECT_EQ(exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"), "refused");
}

// Promise: A new address of an external interface is its external address at once; its tree, its
// ports and their rules stay as they are.
TEST_F(GatewayTracking, AnAddressThatChangesIsOneChange) {
  serve();
  tellAddresses({addressRecord(wanAddress, wan, "45.45.45.9")});
  EXPECT_EQ(log(), (Lines{"dev: 3 set address: 45.45.45.9 (12)", "dev: 3 ip: 45.45.45.9",
                          "set external ip 45.45.45.9"}));
  EXPECT_EQ(externalAddress(), "45.45.45.9");
}

// Promise: An address record may leave out what is known of its address.
TEST_F(GatewayTracking, AnAddressRecordMayOmitKnownFields) {
  serve();
  lm::message record;
  record.insert_u32(lm::key::objectId, wanAddress);
  tellAddresses({record});
  EXPECT_EQ(log(), Lines{"dev: 3 set address: 45.45.45.2 (12)"});
}

// Promise: A new address record without an address is one of `0.0.0.0`.
TEST_F(GatewayTracking, AnAddressRecordWithoutAnAddressMeansZero) {
  serve();
  lm::message record;
  record.insert_u32(lm::key::objectId, 60);
  record.insert_u32(5, lan);
  tellAddresses({record});
  EXPECT_EQ(log(), Lines{"dev: 2 add address: 0.0.0.0 (60)"});
}

// Promise [address-interface]: The interface of an address is u32 5 of its record or, without that,
// u32 10.
TEST_F(GatewayTracking, TheInterfaceOfAnAddressMayBeInTheOtherField) {
  serve();
  lm::message record = addressRecord(40, 0, "45.45.45.1");
  lm::message other;
  other.insert_u32(lm::key::objectId, 40);
  other.insert_u32(10, wan);
  other.insert_be32(1, record.get_be32(1));
  tellAddresses({other});
  EXPECT_EQ(log(), Lines{"dev: 3 add address: 45.45.45.1 (40)"});
}

// Promise: An address that moves to another interface leaves the old one.
TEST_F(GatewayTracking, AnAddressThatMovesLeavesItsOldInterface) {
  serve();
  tellAddresses({addressRecord(20, lan, "192.168.88.2")});
  (void)log();
  tellAddresses({addressRecord(20, wan, "192.168.88.2")});
  EXPECT_EQ(log(), Lines{"dev: 3 set address: 192.168.88.2 (20)"});
  tellAddresses({removedRecord(lanAddress, lan, "192.168.88.1")});
  EXPECT_EQ(log()[1], "dev: 2 ip: 0.0.0.0");
}

// Promise: The removal of an address is ignored when its record is disabled.
TEST_F(GatewayTracking, ARemovalThatSaysDisabledIsIgnored) {
  serve();
  tellAddresses({removedRecord(lanAddress, lan, "192.168.88.1", true)});
  EXPECT_EQ(log(), Lines{});
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.1")});
  EXPECT_EQ(log(), Lines{"dev: 2 set address: 192.168.88.1 (11)"});
}

// Promise: A whole read forgets the address objects that are no longer listed, but leaves the
// interfaces the addresses that they had.
TEST_F(GatewayTracking, AFullReadForgetsAddressObjectsButNotTheAddressesOfInterfaces) {
  serve();
  platformForgetsAddress(wanAddress);
  platform.notify(lm::cmd::changed, {20, 1});
  EXPECT_EQ(log(), Lines{"dev: 2 set address: 192.168.88.1 (11)"});
  EXPECT_EQ(externalAddress(), "45.45.45.2");
  // What was read stays known.
  (void)log();
  tellAddresses({addressRecord(lanAddress, lan, "192.168.88.1")});
  EXPECT_EQ(log(), Lines{"dev: 2 set address: 192.168.88.1 (11)"});
  // The object is forgotten: its removal says nothing, and its id is free for an addition.
  (void)log();
  tellAddresses({removedRecord(wanAddress, wan, "45.45.45.2")});
  EXPECT_EQ(log(), Lines{});
  tellAddresses({addressRecord(wanAddress, wan, "45.45.45.2")});
  EXPECT_EQ(log(), Lines{"dev: 3 add address: 45.45.45.2 (12)"});
}

// Promise: A whole read that fails is the line `device::CMD_GETALL failed: ` and the error text,
// and the gateway goes on serving.
TEST_F(GatewayTracking, AFullReadThatFailsIsLogged) {
  serve();
  platform.refuse({20, 0}, lm::cmd::readAll, "not now");
  platform.notify(lm::cmd::changed, {20, 0});
  EXPECT_EQ(log(), Lines{"device::CMD_GETALL failed: not now"});
  platform.refuse({20, 1}, lm::cmd::readAll, "not now either");
  platform.notify(lm::cmd::changed, {20, 1});
  EXPECT_EQ(log(), Lines{"device::CMD_GETALL failed: not now either"});
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

// Promise [table-waits]: A list is waited for six seconds, the states three and the addresses six.
TEST_F(GatewayTracking, EachFullReadHasItsOwnTimeLimit) {
  start();
  platform.ignore({20, 0}, lm::cmd::list);
  platform.ignore({20, 0}, lm::cmd::readAll);
  platform.ignore({20, 1}, lm::cmd::readAll);
  const auto before = platform.clock().now();
  enable();
  EXPECT_EQ(platform.clock().now() - before, 6s + 3s + 6s);
}

// Promise: The states and the addresses are read as whole tables with command `0xfe0004` from `[20,
// 0]` and `[20, 1]`.
TEST_F(GatewayTracking, AFullReadAsksForTheWholeTable) {
  start();
  platform.forgetSent();
  enable();
  for (const uint32_t handler : {0U, 1U}) {
    const auto asked = platform.sentTo({20, handler}, lm::cmd::readAll);
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(describe(contentOf(asked[0])), "{}");
  }
}

}  // namespace
