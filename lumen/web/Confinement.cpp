#include "lumen/web/Confinement.h"

#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"
#include "lumen/runtime/Log.h"
#include "lumen/web/HostNames.h"

namespace lumen::web {

namespace {

// What it makes beside those that others make, too. Its sockets only listen.
constexpr SystemCall own[] = {
    {"socket", {0, SystemCall::number, AF_INET}, {1, socketKind, SOCK_STREAM}},
    {"ioctl", {1, SystemCall::number, FIONREAD}},
    {"shutdown"},
};

}  // namespace

bool limitCapability(bool keep) {
  constexpr uint32_t bit = 1U << CAP_NET_BIND_SERVICE;
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, held) != 0) lm::fatal("capabilities: ", strerror(errno));
  if (keep) return (held[0].effective & bit) != 0;
  const __user_cap_data_struct nothing[_LINUX_CAPABILITY_U32S_3] = {};
  if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 ||
      syscall(SYS_capset, &header, nothing) != 0) {
    lm::fatal("capabilities: ", strerror(errno));
  }
  return false;
}

void confineWeb(const std::string& store) {
  const FileAccess files[] = {{store, true}, {HostNames::hostsFile}, {HostNames::leaseFolder}};
  allowOnlyFiles(files);
  allowOnly({commonCalls, serverCalls, socketCalls, storeCalls, own}, {});
}

}  // namespace lumen::web
