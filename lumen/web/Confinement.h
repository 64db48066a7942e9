#pragma once

#include <string>

namespace lumen::web {

/// Gives up CAP_NET_BIND_SERVICE, the only capability that this process can have, unless `keep`.
/// Returns whether it has it now. Ends the process when the kernel refuses.
[[nodiscard]] bool limitCapability(bool keep);

/// Gives up every system call and file that the status page does not need. `store` is its store
/// directory.
void confineWeb(const std::string& store);

}  // namespace lumen::web
