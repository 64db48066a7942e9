#pragma once

#include <string>

#include "lumen/values/Result.h"

namespace lumen {

/// Gives this process and its children a view of the file system of their own, in which `directory`
/// is /lumen. Everything else is where it was, and nobody outside sees a difference: when /lumen is
/// missing it is made in that view only. Ends with the last process of the view, however that ends.
///
/// Takes CAP_SYS_ADMIN. When it fails the process is to end.
[[nodiscard]] Result<void> enterPrivateRoot(const std::string& directory);

/// Makes the directory when it is missing, whatever the umask is, and gives it owner and mode.
[[nodiscard]] Result<void> makeDirectory(const std::string& path, unsigned user, unsigned group,
                                         unsigned mode);

}  // namespace lumen
