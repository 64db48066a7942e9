#pragma once

#include <string>

#include "lumen/values/Result.h"

namespace lumen {

/// Gives this process and its children a view of the file system of their own, in which `directory`
/// is /lumen. Everything else is where it was, and no other process sees a difference: a missing
/// /lumen is made in that view only. The view ends with its last process.
///
/// Needs CAP_SYS_ADMIN. After a failure the process must end.
[[nodiscard]] Result<void> enterPrivateRoot(const std::string& directory);

/// Makes the directory if it is missing, and sets its owner and mode whatever the umask is.
[[nodiscard]] Result<void> makeDirectory(const std::string& path, unsigned user, unsigned group,
                                         unsigned mode);

}  // namespace lumen
