#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/values/Ipv4.h"

namespace lumenctl {

/// The kernel's main IPv4 routing table in this network namespace.
inline constexpr const char* routeTablePath = "/proc/net/route";

struct DefaultRoute {
  std::string interface;
  uint32_t metric = 0;  ///< the lowest wins
};

/// The default routes in the text of routeTablePath, the one that is used first. Unreachable routes
/// and invalid lines are left out.
[[nodiscard]] std::vector<DefaultRoute> defaultRoutes(std::string_view table);

/// A network whose hosts an interface reaches without a router.
struct ConnectedNetwork {
  std::string interface;
  lumen::Ipv4Network network;

  [[nodiscard]] bool operator==(const ConnectedNetwork&) const = default;
};

/// Those in the text of routeTablePath, in its order.
[[nodiscard]] std::vector<ConnectedNetwork> connectedNetworks(std::string_view table);

}  // namespace lumenctl
