#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "lumen/runtime/Codec.h"
#include "lumen/services/addresses/AddressTable.h"
#include "platform/Keys.h"
#include "services/interfaces/Router.h"
#include "support/Ipv4Text.h"

namespace lumen {
namespace {

using Lines = std::vector<std::string>;

class AddressTableTest : public Router {
 protected:
  /// Interface 1 is the LAN side, 2 the WAN side, which does not run.
  void SetUp() override {
    kernel.appears("lan");
    kernel.appears("wan", true, false);
    starts();
  }

  Lines listsAddresses() { return recordTexts(asksAddresses(lm::cmd::list)); }
};

// Promise [table-addresses]: There is one object for each IPv4 address of an interface, in these
// keys and this order: id, interface id, address, `disabled`.
// Promise: An address is disabled while its interface is not running.
TEST_F(AddressTableTest, ListsOneObjectForEachAddress) {
  kernel.getsAddress("lan", "192.168.1.1/24");
  kernel.getsAddress("wan", "45.45.45.2/24");
  EXPECT_EQ(listsAddresses(), (Lines{"id=1 interface=1 address=192.168.1.1 disabled=0",
                                     "id=2 interface=2 address=45.45.45.2 disabled=1"}));
  EXPECT_EQ(recordTexts(asksAddresses(lm::cmd::readAll)), listsAddresses());
}

// Also proves [table-addresses], [address-removed].
TEST_F(AddressTableTest, WritesItsRecordsWithTheseKeysAndBytes) {
  kernel.getsAddress("lan", "192.168.1.1/24");
  lm::message record;
  record.insert_u32(0x08fe0001, 1);
  record.insert_u32(0x08000005, 1);
  record.insert_be32(0x08000001, inet_addr("192.168.1.1"));
  record.insert_bool(0x00fe000a, false);
  lm::message added;
  added.insert_message_array(0xa8fe0002, {record});
  kernel.losesAddress("lan", "192.168.1.1/24");
  record.insert_u32(0x08fe0013, 1);
  lm::message removed;
  removed.insert_message_array(0xa8fe0002, {record});
  ASSERT_EQ(notifier.messages.size(), 2U);
  EXPECT_EQ(lm::encode(notifier.messages[0]), lm::encode(added));
  EXPECT_EQ(lm::encode(notifier.messages[1]), lm::encode(removed));
}

// Promise: The ids of addresses rise and are not used twice in one run.
TEST_F(AddressTableTest, NeverUsesAnIdTwice) {
  kernel.getsAddress("lan", "192.168.1.1/24");
  kernel.losesAddress("lan", "192.168.1.1/24");
  kernel.getsAddress("lan", "192.168.1.1/24");
  EXPECT_EQ(listsAddresses(), Lines{"id=2 interface=1 address=192.168.1.1 disabled=0"});
}

// Promise [address-removed]: The notification of a removed address carries `0xfe0013` = 1 and
// `disabled` = false, also when its interface is not running.
TEST_F(AddressTableTest, ReportsARemovedAddressAsNotDisabledEvenIfItsInterfaceDoesNotRun) {
  kernel.getsAddress("wan", "45.45.45.2/24");
  kernel.losesAddress("wan", "45.45.45.2/24");
  EXPECT_EQ(
      notified(),
      (Lines{"address records=[{id=1 interface=2 address=45.45.45.2 disabled=1}]",
             "address records=[{id=1 interface=2 address=45.45.45.2 disabled=0 removed=1}]"}));
}

// Promise: An address is notified once however often the kernel reports it, and its removal only if
// it was there.
TEST_F(AddressTableTest, NotifiesOfAnAddressOnceHoweverOftenTheKernelReportsIt) {
  kernel.getsAddress("lan", "192.168.1.1/24");
  (void)notified();
  kernel.getsAddress("lan", "192.168.1.1/24");
  EXPECT_EQ(notified(), Lines{});
}

TEST_F(AddressTableTest, IgnoresTheRemovalOfAnAddressThatItDoesNotHave) {
  kernel.losesAddress("lan", "192.168.1.1/24");
  EXPECT_EQ(notified(), Lines{});
}

// Promise: Addresses of the loopback are not listed.
TEST_F(AddressTableTest, IgnoresTheAddressesOfTheLoopback) {
  kernel.appears("lo", true, true, 772);
  kernel.getsAddress("lo", "127.0.0.1/8");
  EXPECT_EQ(notified(), Lines{});
  EXPECT_EQ(listsAddresses(), Lines{});
}

// Promise: An address that an interface has in several networks is one object until the last of
// them has gone.
TEST_F(AddressTableTest, KeepsAnAddressUntilTheLastOfItsNetworksHasGone) {
  kernel.getsAddress("lan", "10.0.0.1/24");
  (void)notified();
  kernel.getsAddress("lan", "10.0.0.1/16");
  kernel.losesAddress("lan", "10.0.0.1/24");
  EXPECT_EQ(notified(), Lines{});
  kernel.losesAddress("lan", "10.0.0.1/16");
  EXPECT_EQ(notified(), (Lines{"address records=[{id=1 interface=1 address=10.0.0.1 disabled=0 "
                               "removed=1}]"}));
}

TEST_F(AddressTableTest, DoesNotRemoveAnAddressWhoseNetworkChangedWhileChangesWereLost) {
  kernel.getsAddress("lan", "10.0.0.1/24");
  (void)notified();
  kernel.silent = true;
  kernel.losesAddress("lan", "10.0.0.1/24");
  kernel.getsAddress("lan", "10.0.0.1/16");
  kernel.readsEverything();
  EXPECT_EQ(notified(), Lines{});
  EXPECT_EQ(addressTable->interfaceTowards(test::ip("10.0.9.9")), 1U);
}

// Promise [address-notify]: A notification of addresses holds at most 64 records.
TEST_F(AddressTableTest, SendsAtMost64RecordsInOneNotification) {
  for (int i = 1; i <= 130; ++i) kernel.getsAddress("wan", "10.0.0." + std::to_string(i) + "/24");
  (void)notified();
  kernel.becomes("wan", true, true);
  ASSERT_EQ(notifier.messages.size(), 4U);
  EXPECT_EQ(notifier.messages[1].size_message_array(lm::key::records), 64U);
  EXPECT_EQ(notifier.messages[2].size_message_array(lm::key::records), 64U);
  EXPECT_EQ(notifier.messages[3].size_message_array(lm::key::records), 2U);
  (void)notified();
  kernel.all.addresses.clear();  // so that the link leaves before its addresses
  kernel.leaves("wan");
  ASSERT_EQ(notifier.messages.size(), 5U);
  EXPECT_EQ(
      notifier.messages[2].get_message_array_ref(lm::key::records)[1].get_u32(lm::key::objectId),
      130U);
}

// Promise [address-pages]: Addresses are listed in pages of 64 and read one by one; an unknown one
// is answered with `no such object`.
// Also proves [rights-tables].
TEST_F(AddressTableTest, ListsPageByPage) {
  for (int i = 1; i <= 70; ++i) kernel.getsAddress("lan", "10.0.0." + std::to_string(i) + "/24");
  const lm::message first = asksAddresses(lm::cmd::list);
  EXPECT_EQ(first.size_message_array(lm::key::records), 64U);
  EXPECT_EQ(first.get_u32(lm::key::cursor), 64U);
  lm::message next;
  next.insert_u32(lm::key::cursor, 64);
  const lm::message second = asksAddresses(lm::cmd::list, next);
  EXPECT_EQ(second.size_message_array(lm::key::records), 6U);
  EXPECT_EQ(second.get_u32(lm::key::cursor), lm::none);
}

// Also proves [address-pages].
TEST_F(AddressTableTest, ReadsOneAddress) {
  kernel.getsAddress("lan", "192.168.1.1/24");
  lm::message request;
  request.insert_u32(lm::key::objectId, 1);
  EXPECT_EQ(text(asksAddresses(lm::cmd::readObject, request)),
            "id=1 interface=1 address=192.168.1.1 disabled=0");
  request.insert_u32(lm::key::objectId, 2);
  EXPECT_EQ(text(asksAddresses(lm::cmd::readObject, request)),
            "error=16646153 text=no such object");
}

// Promise [table-addresses-fixed]: Addresses cannot be added, set or removed by a message: `unknown
// command`.
TEST_F(AddressTableTest, RefusesEveryOtherCommand) {
  for (const uint32_t command : {lm::cmd::setObject, lm::cmd::addObject, lm::cmd::removeObject}) {
    EXPECT_EQ(text(asksAddresses(command)), "error=16646153 text=unknown command");
  }
}

}  // namespace
}  // namespace lumen
