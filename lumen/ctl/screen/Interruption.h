#pragma once

#include <chrono>
#include <optional>

#include "platform/Fd.h"

namespace lumenctl {

/// What ends a command that would go on for ever: SIGINT, SIGTERM, or a standard output
/// that has lost its reader.
class Interruption {
 public:
  /// From now on the signals do not end the program.
  Interruption();

  /// Waits at most `limit`, without one for ever, for it or until `fd` can be read. True when it
  /// has come.
  [[nodiscard]] bool wait(int fd, std::optional<std::chrono::milliseconds> limit) const;

 private:
  lm::Fd signals_;
};

}  // namespace lumenctl
