// The kernel's answers and the changes that it reports meanwhile, in every possible order.

#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "lumen/services/system/netlink/TableReading.h"
#include "support/Ipv4Text.h"

namespace lumen {
namespace {

class TableReadingTest : public testing::Test {
 protected:
  static constexpr uint32_t ourPort = 4711;
  static constexpr uint32_t request = 2;

  template <typename What>
  void answers(What what) {
    arrives({request, ourPort, false, std::move(what)});
  }
  template <typename What>
  void reports(What what) {
    arrives({0, 0, false, std::move(what)});
  }
  void arrives(NetlinkMessage message) { reading.take(message, request); }

  static NetlinkMessage::LinkIs link(bool running) {
    return {{{.index = 2, .up = true, .running = running, .name = "wan0"}, {}}};
  }
  static NetlinkMessage::AddressIs has(const char* address) { return {2, at(address)}; }
  static NetlinkMessage::AddressGone loses(const char* address) { return {2, at(address)}; }
  static LinkAddress at(const char* address) {
    return {test::ip(address), Ipv4Network(test::ip(address), 32), std::nullopt};
  }

  TableReading reading{ourPort};
};

TEST_F(TableReadingTest, MergesAnswersAndReportedChanges) {
  answers(link(true));
  answers(has("10.0.0.1"));
  reports(has("10.0.0.2"));
  const LinkSnapshot all = reading.finish();
  EXPECT_TRUE(all.links.at(2).running);
  EXPECT_EQ(all.addresses.at(2), (std::set<LinkAddress>{at("10.0.0.1"), at("10.0.0.2")}));
}

// Promise: What the kernel reports while its tables are read takes precedence over a later answer
// that lacks it.
TEST_F(TableReadingTest, DoesNotHoldAnAddressThatWasToldGoneBeforeAnAnswerThatStillListsIt) {
  reports(loses("10.0.0.1"));
  answers(has("10.0.0.1"));
  EXPECT_TRUE(reading.finish().addresses[2].empty());
}

TEST_F(TableReadingTest, HoldsTheLinkAsItWasToldBeforeAnOlderAnswer) {
  reports(link(false));
  answers(link(true));
  EXPECT_FALSE(reading.finish().links.at(2).running);
}

TEST_F(TableReadingTest, DoesNotHoldALinkThatWasToldGone) {
  reports(NetlinkMessage::LinkGone{2});
  answers(link(true));
  answers(has("10.0.0.1"));
  const LinkSnapshot all = reading.finish();
  EXPECT_TRUE(all.links.empty());
  EXPECT_TRUE(all.addresses.empty());
}

TEST_F(TableReadingTest, HoldsWhatWasToldLast) {
  reports(loses("10.0.0.1"));
  reports(has("10.0.0.1"));
  reports(has("10.0.0.2"));
  reports(loses("10.0.0.2"));
  EXPECT_EQ(reading.finish().addresses.at(2), std::set<LinkAddress>{at("10.0.0.1")});
}

TEST_F(TableReadingTest, KnowsAChangeThatAnotherProgramMadeByItsPort) {
  arrives({request, ourPort + 1, false, loses("10.0.0.1")});
  answers(has("10.0.0.1"));
  EXPECT_TRUE(reading.lostAddress());
  EXPECT_TRUE(reading.finish().addresses[2].empty());
}

TEST_F(TableReadingTest, KnowsAChangeOfAnotherNamespacesProgramWithOurPort) {
  arrives({request + 1, ourPort, false, loses("10.0.0.1")});
  answers(has("10.0.0.1"));
  EXPECT_TRUE(reading.finish().addresses[2].empty());
}

TEST_F(TableReadingTest, WantsAnotherLookOnlyWhenAnAddressIsGone) {
  answers(link(true));
  answers(has("10.0.0.1"));
  reports(link(false));
  reports(has("10.0.0.2"));
  EXPECT_FALSE(reading.lostAddress());
  reports(loses("10.0.0.2"));
  EXPECT_TRUE(reading.lostAddress());
}

}  // namespace
}  // namespace lumen
