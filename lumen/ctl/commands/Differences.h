#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/router/Records.h"

/// What the changes in the history changed.
namespace lumenctl {

/// One value that a change replaced.
struct Difference {
  std::string interface;  ///< empty: a setting of the gateway itself
  std::string setting;    ///< as the commands call it; of an interface "interface", "role", "used"
  nlohmann::ordered_json before;  ///< a bool or a text
  nlohmann::ordered_json after;   ///< the same; null: not known
};

/// What each change of `history`, the oldest first, changed. A change is kept as the message that
/// undoes it, which has the values before it; those after it are the values before the next
/// change of the same thing, or those of `now` (none: not known). Changes of other services than
/// the gateway are not understood, and have no differences.
[[nodiscard]] std::vector<std::vector<Difference>> differences(
    const std::vector<Change>& history, const std::optional<GatewayConfiguration>& now,
    const std::vector<Interface>& interfaces);

/// A value of `difference` as a table shows it.
[[nodiscard]] std::string valueText(const Difference& difference,
                                    const nlohmann::ordered_json& value);

}  // namespace lumenctl
