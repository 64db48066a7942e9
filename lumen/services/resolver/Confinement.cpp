#include "lumen/services/resolver/Confinement.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/FileAccess.h"
#include "base/SystemCalls.h"

namespace lumen {

namespace {

constexpr auto number = SystemCall::number;

// Of the low bits of socket(2)'s type; the others are flags.
constexpr uint64_t kind = 0xF;

// By what needs them. Names that only other C libraries or 32-bit machines have stand beside.
constexpr SystemCall allowed[] = {
    // Sockets to the name servers. Not socketcall, whose arguments cannot be seen: kernels that
    // have owned
    // tables have the single calls everywhere.
    {"socket", {0, number, AF_INET}, {1, kind, SOCK_DGRAM}},
    {"socket", {0, number, AF_INET}, {1, kind, SOCK_STREAM}},
    {"bind"},
    {"connect"},
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

    // Files: resolv.conf, hosts and what else c-ares reads.
    {"open"},
    {"openat"},
    {"access"},
    {"faccessat"},
    {"faccessat2"},
    {"stat"},
    {"stat64"},
    {"fstat"},
    {"fstat64"},
    {"fstatat64"},
    {"newfstatat"},
    {"statx"},
    {"lseek"},
    {"_llseek"},

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
    {"ioctl", {1, number, FIONBIO}},

    // The loop and its clock.
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

    // What libraries ask for: random numbers of requests, locks, the process.
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

// The next name server of resolv.conf may have an IPv4 address.
constexpr RefusedCall refused[] = {
    {{"socket", {0, number, AF_INET6}}, EAFNOSUPPORT},
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
  allowOnly(allowed, refused);
}

}  // namespace lumen
