#include "lumen/services/system/processes/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <ratio>
#include <utility>

namespace lumen {

namespace {

std::string variable(const char* name) {
  const char* const value = getenv(name);
  return value == nullptr ? "" : value;
}

// The watchdog may be meant for another process of the same service.
std::chrono::microseconds watchdogOfThisProcess() {
  const std::string process = variable("WATCHDOG_PID");
  if (!process.empty() && process != std::to_string(getpid())) return {};
  constexpr auto longest = static_cast<uint64_t>(std::chrono::microseconds::max().count());
  const uint64_t given = strtoull(variable("WATCHDOG_USEC").c_str(), nullptr, 10);
  return std::chrono::microseconds(std::min<uint64_t>(given, longest));
}

// Rounded down to what a timer can wait, so that two signs of life fit into `watchdog`.
Centiseconds halfOf(std::chrono::microseconds watchdog) {
  if (watchdog == watchdog.zero()) return {};
  const auto half = std::chrono::floor<std::chrono::duration<int64_t, std::centi>>(watchdog / 2);
  constexpr int64_t longest = std::numeric_limits<uint32_t>::max();
  return Centiseconds(static_cast<uint32_t>(std::clamp<int64_t>(half.count(), 1, longest)));
}

}  // namespace

ServiceManager ServiceManager::ofThisProcess() {
  return {variable("NOTIFY_SOCKET"), watchdogOfThisProcess()};
}

ServiceManager::ServiceManager(std::string socket, std::chrono::microseconds watchdog)
    : socket_(std::move(socket)), interval_(halfOf(watchdog)) {
  if (!socket_.empty()) sender_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void ServiceManager::ready() {
  send("READY=1");
  if (interval_ != interval_.zero() && sender_.valid()) keepAlive();
}

void ServiceManager::keepAlive() {
  send("WATCHDOG=1");
  timer_.start<&ServiceManager::keepAlive>(*this, interval_.count());
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
