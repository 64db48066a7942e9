#include "lumen/services/system/processes/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <utility>

namespace lumen {

namespace {

constexpr uint64_t microsecondsInAHundredth = 10000;

std::string variable(const char* name) {
  const char* const value = getenv(name);
  return value == nullptr ? "" : value;
}

// The watchdog may be meant for another process of the same service.
uint64_t watchdogOfThisProcess() {
  const std::string process = variable("WATCHDOG_PID");
  if (!process.empty() && process != std::to_string(getpid())) return 0;
  return strtoull(variable("WATCHDOG_USEC").c_str(), nullptr, 10);
}

uint32_t hundredths(uint64_t microseconds) {
  constexpr uint64_t longest = std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(
      std::min(longest, std::max<uint64_t>(1, microseconds / microsecondsInAHundredth)));
}

}  // namespace

ServiceManager ServiceManager::ofThisProcess() {
  return {variable("NOTIFY_SOCKET"), watchdogOfThisProcess()};
}

ServiceManager::ServiceManager(std::string socket, uint64_t watchdog)
    : socket_(std::move(socket)), interval_(watchdog == 0 ? 0 : hundredths(watchdog / 2)) {
  if (!socket_.empty()) sender_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void ServiceManager::ready() {
  send("READY=1");
  if (interval_ != 0 && sender_.valid()) keepAlive();
}

void ServiceManager::keepAlive() {
  send("WATCHDOG=1");
  timer_.start<&ServiceManager::keepAlive>(*this, interval_);
}

void ServiceManager::send(const std::string& text) const {
  sockaddr_un address = {};
  if (!sender_.valid() || socket_.size() >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  socket_.copy(address.sun_path, socket_.size());
  // An abstract name begins with a zero byte and ends with its length; a path ends with a zero.
  const bool abstract = socket_.front() == '@';
  if (abstract) address.sun_path[0] = '\0';
  const size_t length =
      offsetof(sockaddr_un, sun_path) + socket_.size() + (abstract ? 0U : sizeof '\0');
  sendto(sender_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length));
}

}  // namespace lumen
