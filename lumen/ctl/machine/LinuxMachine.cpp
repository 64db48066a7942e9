#include "lumen/ctl/machine/LinuxMachine.h"

#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "lumen/ctl/machine/ForwardChainReader.h"
#include "lumen/ctl/screen/Colours.h"
#include "lumen/ctl/screen/TerminalScreen.h"
#include "platform/Fd.h"

namespace lumenctl {

namespace {

/// Used with an error_code: processes that end while they are looked at are skipped.
using Directory = std::filesystem::directory_iterator;

bool ask(unsigned long what, const std::string& link, ifreq& request) {
  const lm::Fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  link.copy(request.ifr_name, sizeof request.ifr_name - 1);
  return ioctl(any.get(), what, &request) == 0;
}

}  // namespace

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
  ethtool_drvinfo driver{};
  driver.cmd = ETHTOOL_GDRVINFO;
  ifreq request{};
  request.ifr_data = reinterpret_cast<char*>(&driver);
  return ask(SIOCETHTOOL, link, request) && std::strcmp(driver.driver, "bridge") == 0;
}

bool LinuxMachine::carriesMulticast(const std::string& link) {
  ifreq request{};
  return ask(SIOCGIFFLAGS, link, request) && (request.ifr_flags & IFF_MULTICAST) != 0;
}

std::string LinuxMachine::userName(uint32_t number) {
  const passwd* const known = getpwuid(number);
  return known == nullptr ? std::to_string(number) : known->pw_name;
}

Process LinuxMachine::ownerOf(uint64_t inode) {
  const std::string socket = "socket:[" + std::to_string(inode) + "]";
  std::error_code error;
  for (Directory process("/proc", error); process != Directory(); process.increment(error)) {
    const std::string id = process->path().filename();
    if (id.find_first_not_of("0123456789") != std::string::npos) continue;
    for (Directory open(process->path() / "fd", error); open != Directory();
         open.increment(error)) {
      if (std::filesystem::read_symlink(open->path(), error) != socket) continue;
      std::string name = read("/proc/" + id + "/comm").value_or("");
      if (name.ends_with('\n')) name.pop_back();
      return {static_cast<uint32_t>(std::stoul(id)), name};
    }
  }
  return {};
}

SocketLinks LinuxMachine::socketLinks() { return readSocketLinks(); }

std::optional<std::vector<ForwardChain>> LinuxMachine::forwardChains() {
  return readForwardChains();
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

bool LinuxMachine::pause(std::chrono::milliseconds limit) {
  if (!interruption_) interruption_.emplace();
  return !interruption_->wait(-1, limit);
}

std::optional<std::string> LinuxMachine::typedLine() {
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

}  // namespace lumenctl
