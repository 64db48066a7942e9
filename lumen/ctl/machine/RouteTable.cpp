#include "lumen/ctl/machine/RouteTable.h"

#include <linux/route.h>

#include <algorithm>
#include <bit>
#include <ios>
#include <sstream>

namespace lumenctl {

namespace {

struct Route {
  std::string interface;
  lumen::Ipv4Network destination;
  uint32_t flags = 0;
  uint32_t metric = 0;
};

/// The routes that are up, without unreachable ones.
std::vector<Route> routesIn(std::string_view table) {
  std::vector<Route> routes;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    Route route;
    // The kernel prints addresses as the numbers that its own byte order makes of their bytes.
    uint32_t destination = 0;
    uint32_t mask = 0;
    uint32_t gateway = 0;
    uint32_t references = 0;
    uint32_t uses = 0;
    columns >> route.interface >> std::hex >> destination >> gateway >> route.flags;
    columns >> std::dec >> references >> uses >> route.metric >> std::hex >> mask;
    if (!columns || (route.flags & RTF_UP) == 0 || (route.flags & RTF_REJECT) != 0) continue;
    route.destination = lumen::Ipv4Network(lumen::Ipv4Address::fromBytes(destination),
                                           static_cast<unsigned>(std::popcount(mask)));
    routes.push_back(route);
  }
  return routes;
}

}  // namespace

std::vector<DefaultRoute> defaultRoutes(std::string_view table) {
  std::vector<DefaultRoute> routes;
  for (const Route& route : routesIn(table)) {
    if (route.destination == lumen::Ipv4Network()) {
      routes.push_back({route.interface, route.metric});
    }
  }
  std::stable_sort(routes.begin(), routes.end(), [](const DefaultRoute& a, const DefaultRoute& b) {
    return a.metric < b.metric;
  });
  return routes;
}

std::vector<ConnectedNetwork> connectedNetworks(std::string_view table) {
  std::vector<ConnectedNetwork> networks;
  for (const Route& route : routesIn(table)) {
    if (route.destination.prefix() == 0 || (route.flags & RTF_GATEWAY) != 0) continue;
    networks.push_back({route.interface, route.destination});
  }
  return networks;
}

}  // namespace lumenctl
