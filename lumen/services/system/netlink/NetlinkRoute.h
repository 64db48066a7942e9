#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lumen/services/system/netlink/Links.h"

namespace lumen {

/// The rtnetlink request that restores `route`, by the link `index` where it left by `route.link`,
/// without what the kernel reports of a route and does not accept: state flags, cache times and
/// next-hop objects (which went with the link; the kernel reports their content beside them). It
/// asks for an acknowledgement and replaces no route. Aligned as a nlmsghdr is; empty when the
/// content is no route.
[[nodiscard]] std::vector<std::byte> makeRouteRequest(const Route& route, uint32_t index);

}  // namespace lumen
