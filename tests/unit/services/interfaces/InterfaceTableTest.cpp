#include <gtest/gtest.h>

#include "lumen/runtime/Codec.h"
#include "lumen/services/interfaces/InterfaceTable.h"
#include "platform/Keys.h"
#include "services/interfaces/Router.h"
#include "support/Ipv4Text.h"

namespace lumen {
namespace {

class InterfaceTableTest : public Router {
 protected:
  /// The names of the links "a" and "b" are swapped while the kernel drops its messages.
  void losesTheSwapOfTwoNames() {
    kernel.appears("a");
    kernel.appears("b");
    starts();
    kernel.silent = true;
    kernel.isRenamed("a", "tmp");
    kernel.isRenamed("b", "a");
    kernel.isRenamed("tmp", "b");
    kernel.silent = false;
    kernel.readsEverything();
  }
};

using Lines = std::vector<std::string>;

// Promise [table-links]: Every link but the loopback is listed, with its id, hardware type, flags,
// kernel index, name, display name, `disabled` and `running`, in these keys and this order.
TEST_F(InterfaceTableTest, ListsEveryLinkButTheLoopback) {
  kernel.appears("lo", true, true, 772);
  kernel.appears("br-lan");
  kernel.appears("ppp0", true, false, 512);
  kernel.appears("spare", false, false);
  starts();
  EXPECT_EQ(lists(), (Lines{record(1, 3, "br-lan", "disabled=0 running=1"),
                            record(2, 4, "ppp0", "disabled=0 running=0", 512),
                            record(3, 5, "spare", "disabled=1 running=0")}));
}

// Promise [link-flags]: The flags of an interface are 0, or `0x80` when it has gone, and never the
// kernel's own.
// Also proves [table-links].
TEST_F(InterfaceTableTest, WritesItsRecordsWithTheseKeysAndBytes) {
  kernel.appears("wan0");
  starts();
  lm::message expected;
  expected.insert_u32(0x08fe0001, 1);
  expected.insert_u32(0x08010001, 1);
  expected.insert_u32(0x08010003, 0);
  expected.insert_u32(0x08010004, 2);
  expected.insert_string(0x20010005, "wan0");
  expected.insert_string(0x20010006, "wan0");
  expected.insert_bool(0x00fe000a, false);
  expected.insert_bool(0x0001000e, true);
  const lm::message answer = asks(daemon, 1);
  ASSERT_EQ(answer.size_message_array(0xa8fe0002), 1U);
  EXPECT_EQ(lm::encode(answer.get_message_array_ref(0xa8fe0002)[0]), lm::encode(expected));
  EXPECT_EQ(answer.get_u32(0x08fe0003), 0xFFFFFFFF);
}

// Promise [rights-tables]: A service may read the interface and address tables.
// Promise [link-pages]: Both list commands give the table in pages of 64.
// Also proves [commands].
TEST_F(InterfaceTableTest, ListsPageByPageWithBothListCommands) {
  for (int i = 0; i < 70; ++i) kernel.appears("veth" + std::to_string(i));
  starts();
  for (const uint32_t command : {1U, 0xfe0004U}) {
    const lm::message first = asks(daemon, command);
    EXPECT_EQ(first.size_message_array(lm::key::records), 64U);
    EXPECT_EQ(first.get_u32(lm::key::cursor), 64U);
    lm::message next;
    next.insert_u32(lm::key::cursor, 64);
    const lm::message second = asks(daemon, command, next);
    EXPECT_EQ(second.size_message_array(lm::key::records), 6U);
    EXPECT_EQ(second.get_u32(lm::key::cursor), lm::none);
  }
}

// Promise: A new link is notified by an interface notification, then its state, then its addresses.
TEST_F(InterfaceTableTest, NotifiesOfANewLinkThenItsStateThenItsAddresses) {
  starts();
  kernel.appears("wan0");
  kernel.getsAddress("wan0", "45.45.45.2/24");
  EXPECT_EQ(notified(),
            (Lines{"interface " + record(1, 2, "wan0", "disabled=0 running=1"),
                   stateOf(record(1, 2, "wan0", "disabled=0 running=1")),
                   "address records=[{id=1 interface=1 address=45.45.45.2 disabled=0}]"}));
}

// Promise: A link that starts or stops running is notified by its state, then its addresses.
TEST_F(InterfaceTableTest, NotifiesOfTheStateWhenALinkStopsRunningThenItsAddresses) {
  startsWithWan();
  kernel.becomes("wan0", true, false);
  EXPECT_EQ(notified(),
            (Lines{stateOf(record(1, 2, "wan0", "disabled=0 running=0")),
                   "address records=[{id=1 interface=1 address=45.45.45.2 disabled=1}]"}));
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(notified(),
            (Lines{stateOf(record(1, 2, "wan0", "disabled=0 running=1")),
                   "address records=[{id=1 interface=1 address=45.45.45.2 disabled=0}]"}));
}

// Promise: A link that does not run and is taken down is notified by its state alone.
TEST_F(InterfaceTableTest, NotifiesOfTheStateAloneWhenALinkThatDoesNotRunIsTakenDown) {
  startsWithWan(false);
  kernel.becomes("wan0", false, false);
  EXPECT_EQ(notified(), (Lines{stateOf(record(1, 2, "wan0", "disabled=1 running=0"))}));
}

// Promise: Nothing is notified when nothing that the table shows has changed.
TEST_F(InterfaceTableTest, NotifiesOfNothingWhenNothingThatItShowsHasChanged) {
  kernel.appears("wan0");
  starts();
  kernel.becomes("wan0", true, true);
  EXPECT_EQ(notified(), Lines{});
}

// Promise: A changed hardware type is notified like a new link.
TEST_F(InterfaceTableTest, NotifiesOfAChangedHardwareTypeThenTheStateThenTheAddresses) {
  kernel.appears("tun0", true, true, 65534);
  starts();
  kernel.getsAddress("tun0", "10.8.0.1/24");
  (void)notified();
  kernel.becomesOfType("tun0", 1);
  EXPECT_EQ(notified(),
            (Lines{"interface " + record(1, 2, "tun0", "disabled=0 running=1"),
                   stateOf(record(1, 2, "tun0", "disabled=0 running=1")),
                   "address records=[{id=1 interface=1 address=10.8.0.1 disabled=0}]"}));
}

// Promise: When a link leaves, its addresses are notified as removed first, then the interface as
// gone, then its state.
// Promise: An interface that is not kept leaves the table with its link.
// Also proves [link-flags].
TEST_F(InterfaceTableTest, RemovesTheAddressesFirstWhenALinkThatIsNotKeptLeaves) {
  startsWithWan();
  kernel.leaves("wan0");
  EXPECT_EQ(notified(),
            (Lines{"address records=[{id=1 interface=1 address=45.45.45.2 disabled=0 removed=1}]",
                   "interface " + record(1, 0, "wan0", "disabled=1 running=0", 1, 128),
                   stateOf(record(1, 0, "wan0", "disabled=1 running=0", 1, 128))}));
  EXPECT_EQ(lists(), Lines{});
}

TEST_F(InterfaceTableTest, RemovesAddressesThatTheKernelHadNotRemovedWhenALinkLeaves) {
  startsWithWan();
  kernel.all.addresses.clear();
  kernel.leaves("wan0");
  const Lines lines = notified();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0],
            "address records=[{id=1 interface=1 address=45.45.45.2 disabled=0 removed=1}]");
}

// Promise [link-index]: A kept name stays in the table, not running and with kernel index 0, while
// its link is away, and has its id when the link comes back.
TEST_F(InterfaceTableTest, KeepsAKeptNameWhileItsLinkIsAwayAndItsIdWhenItComesBack) {
  kernel.appears("eth0");
  kernel.appears("ppp0", true, true, 512);
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=2");
  kernel.getsAddress("ppp0", "45.45.45.2 peer 45.45.45.1/32");
  (void)notified();
  kernel.leaves("ppp0");
  EXPECT_EQ(notified(),
            (Lines{"address records=[{id=1 interface=2 address=45.45.45.2 disabled=0 removed=1}]",
                   "interface " + record(2, 0, "ppp0", "disabled=1 running=0", 512),
                   stateOf(record(2, 0, "ppp0", "disabled=1 running=0", 512))}));
  EXPECT_EQ(lists()[1], record(2, 0, "ppp0", "disabled=1 running=0", 512));

  kernel.appears("ppp0", true, true, 512);
  kernel.getsAddress("ppp0", "45.45.45.3 peer 45.45.45.1/32");
  EXPECT_EQ(notified(),
            (Lines{"interface " + record(2, 4, "ppp0", "disabled=0 running=1", 512),
                   stateOf(record(2, 4, "ppp0", "disabled=0 running=1", 512)),
                   "address records=[{id=2 interface=2 address=45.45.45.3 disabled=0}]"}));
}

// Promise: A renamed link is one name that goes and another that comes, with its addresses.
TEST_F(InterfaceTableTest, TreatsARenameAsOneNameGoingAndAnotherComing) {
  kernel.appears("eth0");
  starts();
  kernel.getsAddress("eth0", "45.45.45.2/24");
  (void)notified();
  kernel.isRenamed("eth0", "wan0");
  EXPECT_EQ(notified(),
            (Lines{"address records=[{id=1 interface=1 address=45.45.45.2 disabled=0 removed=1}]",
                   "interface " + record(1, 0, "eth0", "disabled=1 running=0", 1, 128),
                   stateOf(record(1, 0, "eth0", "disabled=1 running=0", 1, 128)),
                   "interface " + record(2, 2, "wan0", "disabled=0 running=1"),
                   stateOf(record(2, 2, "wan0", "disabled=0 running=1")),
                   "address records=[{id=2 interface=2 address=45.45.45.2 disabled=0}]"}));
}

// Promise: An id belongs to a name: a link that takes a known name gets that name's id, also when
// two links swap theirs.
TEST_F(InterfaceTableTest, GivesALinkTheIdOfTheKeptNameThatItIsRenamedTo) {
  kernel.appears("eth0");
  starts();
  EXPECT_EQ(text(administratorKeeps("wan0", 1)), "id=2");
  kernel.isRenamed("eth0", "wan0");
  EXPECT_EQ(idOf("wan0"), 2U);
  EXPECT_EQ(idOf("eth0"), 0U);
}

TEST_F(InterfaceTableTest, KeepsIdsWithTheNamesWhenTwoLinksSwapTheirs) {
  kernel.appears("a");
  kernel.appears("b");
  starts();
  kernel.isRenamed("a", "tmp");
  kernel.isRenamed("b", "a");
  kernel.isRenamed("tmp", "b");
  EXPECT_EQ(lists(), (Lines{record(1, 3, "a", "disabled=0 running=1"),
                            record(2, 2, "b", "disabled=0 running=1")}));
}

// Promise [link-numbers]: The id of a name is never given to another name.
TEST_F(InterfaceTableTest, NeverGivesTheIdOfANameToAnotherName) {
  kernel.appears("veth1");
  starts();
  kernel.leaves("veth1");
  kernel.appears("veth2");
  EXPECT_EQ(idOf("veth2"), 2U);
  kernel.appears("veth1");
  EXPECT_EQ(idOf("veth1"), 1U);
}

// Promise: When the kernel had to drop changes everything is read again and the differences are
// notified, if there are any.
TEST_F(InterfaceTableTest, NotifiesTheDifferencesWhenChangesWereLost) {
  kernel.appears("stays");
  kernel.appears("goes");
  kernel.appears("stops");
  starts();
  kernel.getsAddress("stays", "10.0.0.1/24");
  kernel.getsAddress("stays", "10.0.1.1/24");
  kernel.getsAddress("goes", "10.0.2.1/24");
  (void)notified();

  kernel.silent = true;
  kernel.leaves("goes");
  kernel.becomes("stops", true, false);
  kernel.appears("comes");
  kernel.losesAddress("stays", "10.0.1.1/24");
  kernel.getsAddress("stays", "10.0.3.1/24");
  kernel.silent = false;
  EXPECT_EQ(notified(), Lines{});
  kernel.readsEverything();
  EXPECT_EQ(notified(),
            (Lines{"address records=[{id=3 interface=2 address=10.0.2.1 disabled=0 removed=1}]",
                   "interface " + record(2, 0, "goes", "disabled=1 running=0", 1, 128),
                   stateOf(record(2, 0, "goes", "disabled=1 running=0", 1, 128)),
                   stateOf(record(3, 4, "stops", "disabled=0 running=0")),
                   "interface " + record(4, 5, "comes", "disabled=0 running=1"),
                   stateOf(record(4, 5, "comes", "disabled=0 running=1")),
                   "address records=[{id=4 interface=1 address=10.0.3.1 disabled=0}]",
                   "address records=[{id=2 interface=1 address=10.0.1.1 disabled=0 removed=1}]"}));
}

TEST_F(InterfaceTableTest, NotifiesNothingWhenLostChangesLeftNoDifference) {
  kernel.appears("wan0");
  starts();
  kernel.getsAddress("wan0", "10.0.0.1/24");
  (void)notified();
  kernel.readsEverything();
  EXPECT_EQ(notified(), Lines{});
}

// Promise: A link that was replaced by one of its name, and names that were swapped, while changes
// were lost are noticed.
TEST_F(InterfaceTableTest, NoticesALinkThatWasReplacedByOneOfTheSameNameWhileChangesWereLost) {
  kernel.appears("ppp0", true, true, 512);
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  kernel.getsAddress("ppp0", "45.45.45.2 peer 45.45.45.1/32");
  (void)notified();
  kernel.silent = true;
  kernel.leaves("ppp0");
  kernel.appears("ppp0", true, true, 512);
  kernel.getsAddress("ppp0", "45.45.45.2 peer 45.45.45.1/32");
  kernel.silent = false;
  kernel.readsEverything();
  EXPECT_EQ(notified(),
            (Lines{"address records=[{id=1 interface=1 address=45.45.45.2 disabled=0 removed=1}]",
                   "interface " + record(1, 0, "ppp0", "disabled=1 running=0", 512),
                   stateOf(record(1, 0, "ppp0", "disabled=1 running=0", 512)),
                   "interface " + record(1, 3, "ppp0", "disabled=0 running=1", 512),
                   stateOf(record(1, 3, "ppp0", "disabled=0 running=1", 512)),
                   "address records=[{id=2 interface=1 address=45.45.45.2 disabled=0}]"}));
}

TEST_F(InterfaceTableTest, FollowsNamesThatWereSwappedWhileChangesWereLost) {
  losesTheSwapOfTwoNames();
  EXPECT_EQ(lists(), (Lines{record(1, 3, "a", "disabled=0 running=1"),
                            record(2, 2, "b", "disabled=0 running=1")}));
}

TEST_F(InterfaceTableTest, KeepsTheIdsOfSwappedNamesHoweverManyOthersComeAndGo) {
  losesTheSwapOfTwoNames();
  for (size_t i = 0; i < InterfaceIds::rememberedNames; ++i) {
    const std::string name = "veth" + std::to_string(i);
    kernel.appears(name);
    kernel.leaves(name);
  }
  kernel.becomes("a", true, false);
  kernel.becomes("b", true, false);
  EXPECT_EQ(lists(), (Lines{record(1, 3, "a", "disabled=0 running=0"),
                            record(2, 2, "b", "disabled=0 running=0")}));
}

// Promise [link-counters]: Reading one interface adds the bytes and packets that it received and
// sent; they are 0 while its link is away.
TEST_F(InterfaceTableTest, ReadsOneInterfaceWithItsCounters) {
  kernel.appears("wan0");
  kernel.counters = {4294967301, 426, 5, 3};
  starts();
  lm::message request = object(1);
  request.insert_u32(0xfe000c, 256);
  EXPECT_EQ(text(asks(daemon, 0xfe0002, request)),
            record(1, 2, "wan0", "disabled=0 running=1") +
                " rxbytes=4294967301 txbytes=426 rxpackets=5 txpackets=3");
}

// Also proves [link-counters].
TEST_F(InterfaceTableTest, ReadsZeroCountersOfALinkThatIsAway) {
  starts();
  EXPECT_EQ(text(administratorKeeps("ppp0", 1)), "id=1");
  EXPECT_EQ(text(asks(daemon, 0xfe0002, object(1))),
            record(1, 0, "ppp0", "disabled=1 running=0", 0) +
                " rxbytes=0 txbytes=0 rxpackets=0 txpackets=0");
}

// Also proves [link-counters].
TEST_F(InterfaceTableTest, ReadsZeroCountersOfALinkThatHasJustLeft) {
  kernel.appears("wan0");
  kernel.counters = {1, 2, 3, 4};
  starts();
  kernel.silent = true;
  kernel.leaves("wan0");
  EXPECT_EQ(text(asks(daemon, lm::cmd::readObject, object(1))),
            record(1, 2, "wan0", "disabled=0 running=1") +
                " rxbytes=0 txbytes=0 rxpackets=0 txpackets=0");
}

// Also proves [table-links].
TEST_F(InterfaceTableTest, NotifiesOfNothingOnTheLoopback) {
  starts();
  kernel.appears("lo", true, true, 772);
  kernel.getsAddress("lo", "127.0.0.1/8");
  kernel.losesAddress("lo", "127.0.0.1/8");
  kernel.leaves("lo");
  EXPECT_EQ(notified(), Lines{});
}

TEST_F(InterfaceTableTest, TracksTheAddressesOfTheLoopback) {
  const auto own = [this](const char* address) { return addressTable->isOwn(test::ip(address)); };
  kernel.appears("lo", true, true, 772);
  kernel.getsAddress("lo", "192.168.1.53/32");
  starts();
  EXPECT_TRUE(own("192.168.1.53"));
  kernel.getsAddress("lo", "192.168.1.54/32");
  EXPECT_TRUE(own("192.168.1.54"));
  kernel.losesAddress("lo", "192.168.1.54/32");
  EXPECT_FALSE(own("192.168.1.54"));

  kernel.silent = true;
  kernel.losesAddress("lo", "192.168.1.53/32");
  kernel.getsAddress("lo", "192.168.1.55/32");
  kernel.silent = false;
  kernel.readsEverything();
  EXPECT_FALSE(own("192.168.1.53"));
  EXPECT_TRUE(own("192.168.1.55"));
  EXPECT_EQ(notified(), Lines{});
}

// Promise: An unknown interface is answered with `no such object`, another command with `unknown
// command`.
TEST_F(InterfaceTableTest, RefusesAnUnknownObjectAndAnUnknownCommand) {
  starts();
  for (const uint32_t command : {0xfe0002U, 0xfe0003U, 0xfe0006U}) {
    EXPECT_EQ(text(asks(administrator, command, object(7))), "error=16646153 text=no such object");
  }
  EXPECT_EQ(text(asks(administrator, 0xfe000d)), "error=16646153 text=unknown command");
}

}  // namespace
}  // namespace lumen
