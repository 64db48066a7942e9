#pragma once

#include <string>

namespace lumen {

/// What lumend was started with.
struct Options {
  std::string root;  ///< the directory that is to be /lumen; empty: the real one
  int status = -1;   ///< 0 or more: there is nothing to do but to end with it
};

/// Reads the command line; help, version and complaints are printed here.
[[nodiscard]] Options readOptions(int argc, char** argv);

}  // namespace lumen
