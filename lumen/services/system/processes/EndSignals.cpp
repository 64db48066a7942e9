#include "lumen/services/system/processes/EndSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace lumen {

EndSignals::EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  signals_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

void EndSignals::ready(int fd) {
  signalfd_siginfo info = {};
  if (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) call_(owner_);
}

}  // namespace lumen
