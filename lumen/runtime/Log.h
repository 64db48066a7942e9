#pragma once

#include <cstdlib>

#include "base/Log.h"

namespace lm {

using ::logLine;

/// Logs why the program cannot go on and ends it with exit status 1.
template <typename... Parts>
[[noreturn]] void fatal(const Parts&... parts) {
  logLine(parts...);
  std::exit(1);
}

}  // namespace lm
