#pragma once

#include <string>

namespace lumen {

/// Gives this process and its children a view of the file system of their own, in which `directory`
/// is /lumen. Everything else is where it was, and nobody outside sees a difference: when /lumen is
/// missing it is made in that view only. Ends with the last process of the view, however that ends.
///
/// Takes CAP_SYS_ADMIN. Empty on success, else what failed; the process is to end then.
[[nodiscard]] std::string enterPrivateRoot(const std::string& directory);

/// Makes the directory when it is missing, whatever the umask is, and gives it owner and mode.
/// Empty on success, else what failed.
[[nodiscard]] std::string makeDirectory(const std::string& path, unsigned user, unsigned group,
                                        unsigned mode);

}  // namespace lumen
