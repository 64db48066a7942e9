#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lumen/services/system/netlink/Links.h"

namespace lumen {

/// The rtnetlink request that puts `route` back, by the link `index` where it left by `route.link`,
/// without what the kernel tells of a route and does not take: state flags, cache times, next-hop
/// objects (which went with the link; what they stood for is told beside them). It acknowledges and
/// changes no route that exists. Aligned as a nlmsghdr is; empty when the content is no route.
[[nodiscard]] std::vector<std::byte> makeRouteRequest(const Route& route, uint32_t index);

}  // namespace lumen
