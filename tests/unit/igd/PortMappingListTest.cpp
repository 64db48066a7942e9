#include <algorithm>

#include "igd/PortMappingFixture.h"

namespace {

// Promise [mapping-dummy-first]: At first the list has the dummy at index 0 and nothing at index 1.
// Promise [mapping-dummy]: The dummy is: no remote host, external port `0`, `TCP`, internal port
// `0`, client `0.0.0.0`, enabled `0`, description `Dummy inactive rule for windows to work`, lease
// `0`.
// Promise [mapping-count]: PortMappingNumberOfEntries is `0` at first, and from the first change on
// the number of mappings and one for the dummy, while that is listed.
// Also proves [fault-713].
TEST_F(PortMapping, FreshConnectionListsTheDummyOnly) {
  EXPECT_EQ(entryAt("0"), listed(dummy));
  EXPECT_EQ(entryAt("1"), noSuchIndex);
  EXPECT_EQ(ownLog(), "");
  EXPECT_EQ(entries(), "0") << "until the entries are first counted";
}

// Also proves [mapping-index].
TEST_F(PortMapping, WithoutTheDummyAFreshConnectionListsNothing) {
  connection->setShowDummyRule(false);
  EXPECT_EQ(entryAt("0"), noSuchIndex);
  EXPECT_EQ(entryAt("1"), noSuchIndex);
}

// Promise [mapping-order]: Mappings are listed by port, and TCP before UDP.
// Promise [mapping-index]: With the dummy the mappings have the indexes from 1 on, without it from
// 0 on.
// Promise [fault-713]: An index after the last entry is a fault 713, without its own line in the
// log.
// Also proves [mapping-protocol].
TEST_F(PortMapping, ListsMappingsByPortAndTcpBeforeUdp) {
  open({.port = "9000"});
  open({.port = "8080", .protocol = "UDP"});
  open({.port = "8080", .protocol = "TCP"});
  open({.port = "80"});
  EXPECT_EQ(entries(), "5");
  const std::vector<Wish> order = {dummy,
                                   {.port = "80"},
                                   {.port = "8080"},
                                   {.port = "8080", .protocol = "UDP"},
                                   {.port = "9000"}};
  for (size_t i = 0; i < order.size(); ++i) {
    EXPECT_EQ(entryAt(std::to_string(i)), listed(order[i])) << i;
  }
  EXPECT_EQ(entryAt("5"), noSuchIndex);
  EXPECT_EQ(entryAt("65535"), noSuchIndex);

  connection->setShowDummyRule(false);
  EXPECT_EQ(entryAt("0"), listed(order[1]));
  EXPECT_EQ(entryAt("3"), listed(order[4]));
  EXPECT_EQ(entryAt("4"), noSuchIndex);
}

// Promise [mapping-index-range]: An index that is no number, or is above 65535, is a fault 402; an
// empty one is 0.
TEST_F(PortMapping, TakesAnIndexOf16Bits) {
  for (const char* index : {"65536", "-1", "first", "0x1"}) {
    EXPECT_EQ(entryAt(index), fault(402, "Invalid Args")) << index;
  }
  EXPECT_EQ(entryAt(""), listed(dummy));
}

TEST_F(PortMapping, DoesNotCountTheEntriesWhenAMappingOnlyChanges) {
  open({});
  connection->setVar("PortMappingNumberOfEntries", "77");
  open({.internalPort = "81"});
  EXPECT_EQ(entries(), "77");
}

// Promise [mapping-dummy-found]: The dummy is found under no remote host, port `0` in exactly this
// spelling and `TCP`, whether it is listed or not.
TEST_F(PortMapping, FindsTheDummyWhetherItIsListedOrNot) {
  EXPECT_EQ(entryOf("0", "TCP"), found(dummy));
  connection->setShowDummyRule(false);
  EXPECT_EQ(entryOf("0", "TCP"), found(dummy));
  EXPECT_EQ(entryOf("00", "TCP"), noSuchEntry) << "only in this spelling";
  EXPECT_EQ(entryOf("0", "UDP"), noSuchEntry);
  EXPECT_EQ(entryOf("0", "TCP", "*"), noSuchEntry);
}

// Promise [fault-714]: GetSpecificPortMappingEntry of an unknown mapping, or with a remote host, is
// a fault 714, without its own line in the log.
TEST_F(PortMapping, FindsNoMappingForARemoteHost) {
  open({});
  EXPECT_EQ(entryOf("8080", "TCP", "*"), noSuchEntry);
  EXPECT_EQ(entryOf("8080", "TCP", "45.45.45.77"), noSuchEntry);
  EXPECT_EQ(ownLog(), "");
}

// Promise [mapping-empty-port]: Where a mapping is looked up, an empty external port is 0.
TEST_F(PortMapping, TreatsAnEmptyPortAsZeroWhenItLooksUpAMapping) {
  open({.port = "0"});
  EXPECT_EQ(entryOf("", "TCP"), found({.port = "0"}));
  EXPECT_EQ(close("", "TCP"), closed());
  EXPECT_EQ(ownLog(), "del map \n");
}

// Promise: Hiding and showing the dummy changes the number by one each time; setting the switch as
// it is changes nothing.
// Also proves [mapping-count].
TEST_F(PortMapping, CountsTheDummyAsLongAsItIsListed) {
  open({});
  EXPECT_EQ(entries(), "2");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "1");
  connection->setShowDummyRule(true);
  EXPECT_EQ(entries(), "2");
  close("8080", "TCP");
  EXPECT_EQ(entries(), "1");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "0");
  open({});
  EXPECT_EQ(entries(), "1");
}

TEST_F(PortMapping, DoesNotCountAgainWhenTheDummyIsUnchanged) {
  connection->setShowDummyRule(true);
  EXPECT_EQ(entries(), "0");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "0");
  connection->setVar("PortMappingNumberOfEntries", "77");
  connection->setShowDummyRule(false);
  EXPECT_EQ(entries(), "77");
}

// Also proves [mapping-order].
TEST(PortMapId, OrdersByPortThenByProtocol) {
  const std::vector<Id> order = {{80, Id::tcp}, {80, Id::udp}, {81, Id::tcp}, {65535, Id::udp}};
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(Id::tcp, 0U);
  EXPECT_EQ(Id::udp, 1U);
}

}  // namespace
