#pragma once

#include <cstddef>
#include <string>

namespace lumen {

/// What readPlainFile found.
struct PlainFile {
  std::string text;
  std::string error;     ///< why it could not be read, for the log; empty: it was
  bool missing = false;  ///< there is no such file, which is an error too
};

/// Reads at most `limit` bytes of the file at `path`. Whatever is no plain file, such as a pipe
/// that nobody writes to, is an error and is not waited for.
[[nodiscard]] PlainFile readPlainFile(const std::string& path, size_t limit);

}  // namespace lumen
