#pragma once

#include "platform/Fd.h"

namespace lm {

/// Blocks SIGTERM and SIGINT, so that from now on neither is lost or ends the program. Returns the
/// signalfd that they are read from, which does not block; an invalid one, with errno, when there
/// is no descriptor left.
[[nodiscard]] Fd takeStopSignals();

}  // namespace lm
