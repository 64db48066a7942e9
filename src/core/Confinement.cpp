#include "core/Confinement.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include "base/FileAccess.h"
#include "base/SystemCalls.h"
#include "core/Paths.h"

namespace {

constexpr auto number = SystemCall::number;

// Of the low bits of socket(2)'s type; the others are flags.
constexpr uint64_t kind = 0xF;

// By what needs them. Names that only other C libraries or 32-bit machines have stand beside.
constexpr SystemCall allowed[] = {
    // Sockets to the LAN. Not socketcall, whose arguments cannot be seen: kernels that have owned
    // tables have the single calls everywhere.
    {"socket", {0, number, AF_INET}, {1, kind, SOCK_DGRAM}},
    {"socket", {0, number, AF_INET}, {1, kind, SOCK_STREAM}},
    {"bind"},
    {"listen"},
    {"accept"},
    {"accept4"},
    {"connect"},
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

    // Files: the stores, and what is served.
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

    // What libraries ask for: random numbers of UUIDs, locks, the process.
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

void confineGateway() {
  const FileAccess files[] = {
      {path::interfaceStore, true}, {path::settingsStore, true}, {path::servedFiles}};
  allowOnlyFiles(files);
  allowOnly(allowed, {});
}
