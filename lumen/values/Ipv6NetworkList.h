#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/values/Ipv6.h"

namespace lumen {

/// Networks of which none holds another one, in order.
using Ipv6NetworkList = std::vector<Ipv6Network>;

/// Leaves out each network that another one holds.
[[nodiscard]] Ipv6NetworkList tidyNetworks(Ipv6NetworkList networks);

/// "2001:db8::/32 2001:db9::1/128".
[[nodiscard]] std::string networksText(const Ipv6NetworkList& networks);

/// Reads what networksText() writes, of any order; none for any other text.
[[nodiscard]] std::optional<Ipv6NetworkList> parseIpv6Networks(std::string_view text);

}  // namespace lumen
