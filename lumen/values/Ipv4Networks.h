#pragma once

#include <string>
#include <vector>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// Networks of which none holds another one, in order.
using Ipv4Networks = std::vector<Ipv4Network>;

/// Leaves out each network that another one holds.
[[nodiscard]] Ipv4Networks tidyNetworks(Ipv4Networks networks);

/// "198.51.100.0/24 203.0.113.7/32".
[[nodiscard]] std::string networksText(const Ipv4Networks& networks);

}  // namespace lumen
