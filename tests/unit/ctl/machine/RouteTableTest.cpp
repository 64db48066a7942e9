#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumen/ctl/machine/RouteTable.h"

namespace lumenctl {
namespace {

using Names = std::vector<std::string>;

constexpr const char* heading =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT    \n";

/// The interfaces of the default routes in a table with these lines.
Names defaultsOf(const std::string& lines) {
  Names names;
  for (const DefaultRoute& route : defaultRoutes(heading + lines)) names.push_back(route.interface);
  return names;
}

TEST(RouteTable, FindsTheDefaultRouteAmongOthers) {
  EXPECT_EQ(defaultsOf("wan0\t00000000\t022D2D2D\t0003\t0\t0\t0\t00000000\t0\t0\t0    \n"
                       "wan0\t002D2D2D\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0    \n"
                       "br-lan\t0058A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0  \n"),
            Names{"wan0"});
}

// Also proves [ctl-propose].
TEST(RouteTable, PutsTheDefaultRouteThatIsUsedFirst) {
  EXPECT_EQ(defaultsOf("lte0\t00000000\t00000000\t0001\t0\t0\t700\t00000000\t0\t0\t0\n"
                       "wan0\t00000000\t022D2D2D\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                       "wan1\t00000000\t022D2D2D\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"),
            (Names{"wan0", "wan1", "lte0"}));
}

TEST(RouteTable, LeavesOutWhatIsNoDefaultRoute) {
  const std::vector<std::pair<std::string, const char*>> tables = {
      {"", "no line"},
      {"*\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n", "refuses (RTF_REJECT)"},
      {"wan0\t00000000\t022D2D2D\t0002\t0\t0\t0\t00000000\t0\t0\t0\n", "not up"},
      {"wan0\t00000000\t022D2D2D\t0003\t0\t0\t0\t00000080\t0\t0\t0\n", "half of all addresses"},
      {"wan0\t00000000\t022D2D2D\t0003\n", "a line that is cut"},
      {"wan0\tdefault\t022D2D2D\t0003\t0\t0\t0\t00000000\t0\t0\t0\n", "no number"},
      {"\n\n", "empty lines"},
  };
  for (const auto& [lines, reason] : tables) EXPECT_EQ(defaultsOf(lines), Names{}) << reason;
}

TEST(RouteTable, FindsTheNetworksThatAreReachedWithoutARouter) {
  const std::string table =
      "wan0\t00000000\t022D2D2D\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
      "br-lan\t0058A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
      "br-lan\t0000000A\t0258A8C0\t0003\t0\t0\t0\t000000FF\t0\t0\t0\n"
      "*\t0000A8C0\t00000000\t0201\t0\t0\t0\t0000FFFF\t0\t0\t0\n"
      "lte0\t00000000\t00000000\t0001\t0\t0\t700\t00000000\t0\t0\t0\n"
      "wan0\t002D2D2D\t00000000\t0001\n";
  EXPECT_EQ(connectedNetworks(heading + table),
            (std::vector<ConnectedNetwork>{{"br-lan", {{192, 168, 88, 0}, 24}}}));
}

}  // namespace
}  // namespace lumenctl
