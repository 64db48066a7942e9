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

#include "base/FileAccess.h"
#include "base/SystemCalls.h"
#include "lumen/runtime/Log.h"
#include "lumen/web/HostNames.h"

namespace lumen::web {

namespace {

constexpr auto number = SystemCall::number;

// Of the low bits of socket(2)'s type; the others are flags.
constexpr uint64_t kind = 0xF;

// By what needs them. Names that only other C libraries or 32-bit machines have stand beside.
constexpr SystemCall allowed[] = {
    // Sockets to the LAN, which listen only.
    {"socket", {0, number, AF_INET}, {1, kind, SOCK_STREAM}},
    {"bind"},
    {"listen"},
    {"accept"},
    {"accept4"},
    {"shutdown"},
    {"getsockname"},
    {"getpeername"},
    {"getsockopt"},
    {"setsockopt"},
    {"send"},
    {"sendto"},
    {"sendmsg"},
    {"recv"},
    {"recvfrom"},
    {"recvmsg"},

    // Files: the store, and the names of hosts.
    {"open"},
    {"openat"},
    {"access"},
    {"faccessat"},
    {"faccessat2"},
    {"stat"},
    {"stat64"},
    {"lstat"},
    {"lstat64"},
    {"fstat"},
    {"fstat64"},
    {"fstatat64"},
    {"newfstatat"},
    {"statx"},
    {"getdents"},
    {"getdents64"},
    {"lseek"},
    {"_llseek"},
    {"fsync"},
    {"rename"},
    {"renameat"},
    {"renameat2"},
    {"unlink"},
    {"unlinkat"},

    // Descriptors.
    {"read"},
    {"readv"},
    {"write"},
    {"writev"},
    {"close"},
    {"fcntl"},
    {"fcntl64"},
    {"ioctl", {1, number, TCGETS}},      // isatty, before the log is written
    {"ioctl", {1, number, TIOCGWINSZ}},  // the same
    {"ioctl", {1, number, FIONREAD}},

    // The loop and its clock, and those of libmicrohttpd.
    {"epoll_create1"},
    {"epoll_ctl"},
    {"epoll_wait"},
    {"epoll_pwait"},
    {"eventfd2"},
    {"poll"},
    {"ppoll"},
    {"ppoll_time64"},
    {"restart_syscall"},
    {"clock_gettime"},
    {"clock_gettime64"},
    {"nanosleep"},
    {"clock_nanosleep"},
    {"clock_nanosleep_time64"},
    {"gettimeofday"},
    {"time"},

    // Memory, none of it executable.
    {"brk"},
    {"mmap", {2, PROT_EXEC, 0}},
    {"mmap2", {2, PROT_EXEC, 0}},
    {"mprotect", {2, PROT_EXEC, 0}},
    {"munmap"},
    {"mremap"},
    {"madvise"},

    // What libraries ask for: locks, the process.
    {"getrandom"},
    {"futex"},
    {"futex_time64"},
    {"getpid"},
    {"getppid"},
    {"gettid"},
    {"getuid"},
    {"getuid32"},
    {"sysinfo"},
    {"uname"},

    // The end, by abort as well.
    {"rt_sigprocmask"},
    {"tgkill"},
    {"tkill"},
    {"exit"},
    {"exit_group"},
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
  allowOnly({allowed}, {});
}

}  // namespace lumen::web
