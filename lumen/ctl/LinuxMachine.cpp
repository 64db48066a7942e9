#include "lumen/ctl/LinuxMachine.h"

#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "lumen/ctl/Colours.h"
#include "lumen/ctl/TerminalScreen.h"
#include "platform/Fd.h"

namespace lumenctl {

std::optional<std::string> LinuxMachine::read(const std::string& path) {
  const lm::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return std::nullopt;
  std::string text;
  std::array<char, 16384> part{};
  while (true) {
    const ssize_t length = ::read(file.get(), part.data(), part.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    if (length == 0) return text;
    text.append(part.data(), static_cast<size_t>(length));
  }
}

/// Not from /sys, which shows the network namespace that it was mounted in.
bool LinuxMachine::isBridge(const std::string& link) {
  const lm::Fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ethtool_drvinfo driver{};
  driver.cmd = ETHTOOL_GDRVINFO;
  ifreq request{};
  link.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_data = reinterpret_cast<char*>(&driver);
  return ioctl(any.get(), SIOCETHTOOL, &request) == 0 && std::strcmp(driver.driver, "bridge") == 0;
}

bool LinuxMachine::hasTerminal() { return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0; }

bool LinuxMachine::showsColours() {
  return wantsColours(isatty(STDOUT_FILENO) != 0, std::getenv("NO_COLOR"), std::getenv("TERM"));
}

std::unique_ptr<Screen> LinuxMachine::screen() {
  const char* const term = std::getenv("TERM");
  const bool drawable = term != nullptr && *term != '\0' && std::strcmp(term, "dumb") != 0;
  if (!drawable || isatty(STDOUT_FILENO) == 0) return nullptr;
  return std::make_unique<TerminalScreen>();
}

bool LinuxMachine::pause(uint64_t limit) {
  if (!interruption_) interruption_.emplace();
  return !interruption_->wait(-1, static_cast<int>(limit));
}

std::optional<std::string> LinuxMachine::typedLine() {
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

}  // namespace lumenctl
