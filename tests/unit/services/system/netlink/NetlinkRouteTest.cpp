#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "lumen/services/system/netlink/NetlinkReader.h"
#include "lumen/services/system/netlink/NetlinkRoute.h"
#include "services/system/netlink/NetlinkBytes.h"

namespace lumen {
namespace {

Route routeOf(const NetlinkBytes& message, uint32_t link) {
  const auto body = message.span().subspan(16);
  return {link, true, std::string(reinterpret_cast<const char*>(body.data()), body.size())};
}

std::vector<std::byte> bytesOf(const NetlinkBytes& bytes) {
  return {bytes.span().begin(), bytes.span().end()};
}

// Promise: A saved route names the link and what an administrator or a program set, and leaves out
// what the kernel only reports.
TEST(NetlinkRoute, RestoresARouteByItsLink) {
  EXPECT_EQ(
      makeRouteRequest(routeOf(defaultRoute, 3), 3),
      bytesOf({"3c 00 00 00 18 00 05 06 00 00 00 00 00 00 00 00",  // request, acknowledge, create,
                                                                   // exclusive
               "02 00 00 00 fe 03 00 01 00 00 00 00", "08 00 0f 00 fe 00 00 00",
               "08 00 06 00 64 00 00 00", "08 00 05 00 2d 2d 2d 01", "08 00 04 00 03 00 00 00"}));
}

TEST(NetlinkRoute, NamesTheLinkThatCameInPlaceOfTheOldOne) {
  const auto request = makeRouteRequest(routeOf(defaultRoute, 3), 9);
  ASSERT_EQ(request.size(), 60U);
  EXPECT_EQ(request[56], std::byte{9});
}

TEST(NetlinkRoute, NamesTheNewLinkInItsOwnNextHopsOnly) {
  const auto request = makeRouteRequest(routeOf(multipathRoute, 3), 9);
  ASSERT_EQ(request.size(), 80U);
  EXPECT_EQ(request[52], std::byte{9});
  EXPECT_EQ(request[68], std::byte{5});
  const auto second = makeRouteRequest(routeOf(multipathRoute, 5), 9);
  ASSERT_EQ(second.size(), 80U);
  EXPECT_EQ(second[52], std::byte{3});
  EXPECT_EQ(second[68], std::byte{9});
}

TEST(NetlinkRoute, LeavesOutWhatTheKernelOnlyReports) {
  const NetlinkBytes told{
      "50 00 00 00 18 00 02 00 00 00 00 00 00 00 00 00",
      "02 00 00 00 fe 03 00 01 15 00 00 00",  // RTNH_F_DEAD, RTNH_F_ONLINK, RTNH_F_LINKDOWN
      "08 00 0f 00 fe 00 00 00",
      "08 00 1e 00 01 00 00 00",  // RTA_NH_ID 1
      "08 00 05 00 2d 2d 2d 01",
      "08 00 04 00 03 00 00 00",
      "0c 00 0c 00 01 02 03 04 05 06 07 08"};  // RTA_CACHEINFO
  EXPECT_EQ(
      makeRouteRequest(routeOf(told, 3), 3),
      bytesOf({"34 00 00 00 18 00 05 06 00 00 00 00 00 00 00 00",
               "02 00 00 00 fe 03 00 01 04 00 00 00",  // RTNH_F_ONLINK
               "08 00 0f 00 fe 00 00 00", "08 00 05 00 2d 2d 2d 01", "08 00 04 00 03 00 00 00"}));
}

// Promise: A saved record that is no route is refused before the kernel sees it.
TEST(NetlinkRoute, RefusesAContentThatIsNoRoute) {
  const std::string whole = routeOf(multipathRoute, 3).content;
  for (size_t length = 0; length < whole.size(); ++length) {
    // Cut after a complete attribute, it is a shorter route.
    if (length == 12 || length == 20 || length == 28) continue;
    EXPECT_TRUE(makeRouteRequest({3, true, whole.substr(0, length)}, 3).empty()) << length;
  }
  const NetlinkBytes halfALink{"24 00 00 00 18 00 02 00 00 00 00 00 00 00 00 00",
                               "02 00 00 00 fe 03 00 01 00 00 00 00",
                               "06 00 04 00 03 00 00 00"};  // RTA_OIF of two bytes
  EXPECT_TRUE(makeRouteRequest(routeOf(halfALink, 3), 3).empty());
  std::string bridge = whole;
  bridge[0] = 7;  // AF_BRIDGE
  EXPECT_TRUE(makeRouteRequest({3, true, bridge}, 3).empty());
}

TEST(NetlinkRoute, SurvivesRandomContent) {
  std::mt19937 random(46);  // the same bytes in every run
  for (int round = 0; round < 20000; ++round) {
    Route route = routeOf(round % 2 == 0 ? defaultRoute : multipathRoute, 3);
    for (auto changes = 1 + random() % 6; changes > 0; --changes) {
      route.content[random() % route.content.size()] = static_cast<char>(random());
    }
    const auto request = makeRouteRequest(route, 3);
    EXPECT_LE(request.size(), route.content.size() + 16);
  }
}

}  // namespace
}  // namespace lumen
