#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lumenctl {

/// The kernel's main IPv4 routing table in this network namespace.
inline constexpr const char* routeTablePath = "/proc/net/route";

struct DefaultRoute {
  std::string interface;
  uint32_t metric = 0;  ///< the lowest wins
};

/// The default routes in the text of routeTablePath, the one that is used first. Routes that refuse
/// what they match, and lines that are none, are left out.
[[nodiscard]] std::vector<DefaultRoute> defaultRoutes(std::string_view table);

}  // namespace lumenctl
