#pragma once

#include <set>
#include <string>
#include <string_view>

#include "lumen/values/Ipv4.h"

namespace lumen::web {

/// The longest host name (RFC 1035 section 2.3.4).
inline constexpr size_t longestHostName = 253;

/// Whether `name` can be a host name: letters, digits, dashes and dots.
[[nodiscard]] bool isHostName(std::string_view name);

/// Whether a browser that sent this Host header (RFC 9110 section 7.2) meant this router: one of
/// its addresses, or one of the `names`, which are in lower case; the port does not matter. A page
/// of another site whose name leads here for a moment (DNS rebinding) fails this.
[[nodiscard]] bool isOwnHost(std::string_view header, const std::set<Ipv4Address>& addresses,
                             const std::set<std::string, std::less<>>& names);

}  // namespace lumen::web
