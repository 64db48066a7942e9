#include "lumen/services/resolver/Confinement.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"

namespace lumen {

namespace {

// What it makes beside those that others make, too.
constexpr SystemCall own[] = {
    {"ioctl", {1, SystemCall::number, FIONBIO}},
};

// The next name server of resolv.conf may have an IPv4 address.
constexpr RefusedCall refused[] = {
    {{"socket", {0, SystemCall::number, AF_INET6}}, EAFNOSUPPORT},
};

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

}  // namespace

void confineResolver(std::span<const std::string> configurations) {
  std::vector<FileAccess> files = {{"/etc"}, {"/dev/urandom"}};
  for (const std::string& path : configurations) {
    files.push_back({folderOf(path)});
    const std::unique_ptr<char, void (*)(void*)> target(realpath(path.c_str(), nullptr), free);
    if (target != nullptr) files.push_back({folderOf(target.get())});
  }
  allowOnlyFiles(files);
  allowOnly({commonCalls, clientCalls, socketCalls, own}, refused);
}

}  // namespace lumen
