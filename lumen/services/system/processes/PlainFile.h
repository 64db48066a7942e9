#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "lumen/values/Result.h"

namespace lumen {

/// Reads at most `limit` bytes of the file at `path`; none when there is no such file. What is no
/// plain file, such as a pipe without a writer, fails and is not waited for.
[[nodiscard]] Result<std::optional<std::string>> readPlainFile(const std::string& path,
                                                               size_t limit);

}  // namespace lumen
