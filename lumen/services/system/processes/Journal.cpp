#include "lumen/services/system/processes/Journal.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace lumen::journal {

bool isStream(int fd, const char* variable) {
  struct stat info = {};
  if (variable == nullptr || fstat(fd, &info) != 0) return false;
  return variable == std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

lm::Fd open(const std::string& identifier, const std::string& socketPath) {
  sockaddr_un address = {};
  if (socketPath.size() >= sizeof address.sun_path) return {};
  address.sun_family = AF_UNIX;
  socketPath.copy(address.sun_path, socketPath.size());
  lm::Fd stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!stream.valid() ||
      connect(stream.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  // As sd_journal_stream_fd(3) begins a stream: identifier, unit (found by the journal itself),
  // priority, priorities in the text, and three ways of forwarding.
  const std::string head = identifier + "\n\n" + std::to_string(LOG_INFO) + "\n0\n0\n0\n0\n";
  if (write(stream.get(), head.data(), head.size()) != static_cast<ssize_t>(head.size())) return {};
  return stream;
}

}  // namespace lumen::journal
