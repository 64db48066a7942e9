#include "lumen/ctl/screen/Interruption.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "lumen/ctl/text/Errors.h"
#include "lumen/runtime/StopSignals.h"

namespace lumenctl {

Interruption::Interruption() : signals_(lm::takeStopSignals()) {
  if (!signals_.valid()) throw Refused(std::string("signalfd: ") + strerror(errno));
}

bool Interruption::wait(int fd, std::optional<std::chrono::milliseconds> limit) const {
  // A pipe without a reader reports an error without being asked for events.
  std::array<pollfd, 3> watched = {
      {{signals_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {fd, POLLIN, 0}}};
  const int timeout = limit ? static_cast<int>(limit->count()) : -1;
  if (poll(watched.data(), watched.size(), timeout) <= 0) return false;
  return watched[0].revents != 0 || watched[1].revents != 0;
}

}  // namespace lumenctl
