#include "lumen/ctl/RouteTable.h"

#include <linux/route.h>

#include <algorithm>
#include <ios>
#include <sstream>

namespace lumenctl {

std::vector<DefaultRoute> defaultRoutes(std::string_view table) {
  std::vector<DefaultRoute> routes;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    DefaultRoute route;
    uint32_t destination = 0;
    uint32_t gateway = 0;
    uint32_t flags = 0;
    uint32_t references = 0;
    uint32_t uses = 0;
    uint32_t mask = 0;
    columns >> route.interface >> std::hex >> destination >> gateway >> flags;
    columns >> std::dec >> references >> uses >> route.metric >> std::hex >> mask;
    if (!columns || destination != 0 || mask != 0) continue;
    if ((flags & RTF_UP) == 0 || (flags & RTF_REJECT) != 0) continue;
    routes.push_back(route);
  }
  std::stable_sort(routes.begin(), routes.end(), [](const DefaultRoute& a, const DefaultRoute& b) {
    return a.metric < b.metric;
  });
  return routes;
}

}  // namespace lumenctl
