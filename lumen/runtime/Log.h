#pragma once

#include <cstdlib>
#include <iostream>

namespace lm {

/// One line on standard output, flushed. A line that could not be written does not silence the
/// next.
template <typename... Parts>
void logLine(const Parts&... parts) {
  std::cout.clear();
  (std::cout << ... << parts) << std::endl;
}

/// Logs why the program cannot go on and ends it with exit status 1.
template <typename... Parts>
[[noreturn]] void fatal(const Parts&... parts) {
  logLine(parts...);
  std::exit(1);
}

}  // namespace lm
