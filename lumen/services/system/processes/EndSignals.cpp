#include "lumen/services/system/processes/EndSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include "lumen/runtime/StopSignals.h"

namespace lumen {

EndSignals::EndSignals() : signals_(lm::takeStopSignals()) { signal(SIGPIPE, SIG_IGN); }

void EndSignals::ready(int fd) {
  signalfd_siginfo info = {};
  if (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) call_(owner_);
}

}  // namespace lumen
