#pragma once

#include <string>

namespace lumen {

/// What lumend was started with.
struct Options {
  std::string root;  ///< the directory that is to be /lumen; empty: the real one
  int status = -1;   ///< 0 or more: the program is to exit with it at once
};

/// Reads the command line; prints help, version and errors.
[[nodiscard]] Options readOptions(int argc, char** argv);

}  // namespace lumen
