#include "lumen/runtime/Descriptors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "platform/Fd.h"
#include "platform/ThinRunner.h"

namespace lm {
namespace {

short conditions(int fd, short wanted) {
  pollfd look{fd, wanted, 0};
  return poll(&look, 1, 0) > 0 ? look.revents : short{0};
}

}  // namespace

bool isListening(int fd) {
  int listening = 0;
  socklen_t length = sizeof listening;
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening != 0;
}

bool isReadable(int fd) { return conditions(fd, POLLIN) != 0; }

bool isSpent(int fd, unsigned flags) {
  const short seen = conditions(fd, POLLRDHUP);
  if (seen & POLLNVAL) return true;
  if ((flags & watchRead) == 0) return (seen & (POLLHUP | POLLERR)) != 0;
  if ((seen & (POLLRDHUP | POLLHUP | POLLERR)) == 0) return false;
  int unread = 0;
  return ioctl(fd, FIONREAD, &unread) != 0 || unread == 0;
}

int lowestFreeDescriptor(int anyOpen) {
  const Fd copy(fcntl(anyOpen, F_DUPFD_CLOEXEC, 0));
  return copy.get();
}

}  // namespace lm
