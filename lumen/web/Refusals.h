#pragma once

#include <array>
#include <string>
#include <string_view>

namespace lumen::web {

/// The kinds of reasons why ports are refused, which are few: the reasons themselves name ports and
/// addresses.
inline constexpr std::array<const char*, 6> refusalKinds = {"in_use",      "kernel",   "policy",
                                                            "router_port", "too_many", "other"};

/// The kind of this reason, as lumend words it.
[[nodiscard]] std::string refusalKind(std::string_view reason);

}  // namespace lumen::web
