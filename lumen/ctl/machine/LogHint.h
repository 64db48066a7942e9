#pragma once

#include <string>

#include "lumen/ctl/machine/Machine.h"

namespace lumenctl {

/// Whether systemd is the first process of the machine. False when that cannot be seen.
[[nodiscard]] bool hasSystemd(Machine& machine);

/// Where the administrator reads what lumend and its services have logged, and who may read it, as
/// a sentence. `root` is that of --root; empty: the machine's own platform.
[[nodiscard]] std::string logHint(Machine& machine, const std::string& root);

}  // namespace lumenctl
