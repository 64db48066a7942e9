#pragma once

#include <cstdlib>
#include <iostream>

namespace lm {

/// One line on standard output, flushed.
template <typename... Parts>
void logLine(const Parts&... parts) {
  (std::cout << ... << parts) << std::endl;
}

/// Logs why the program cannot go on and ends it with exit status 1.
template <typename... Parts>
[[noreturn]] void fatal(const Parts&... parts) {
  logLine(parts...);
  std::exit(1);
}

}  // namespace lm
