#include "lumen/services/system/processes/ChildStart.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "lumen/services/system/processes/LockFile.h"

namespace lumen {

namespace {

constexpr bool confined = PALINODE_CONFINEMENT;

constexpr int lockPlace = 3;
constexpr int executablePlace = 4;
constexpr int firstFreePlace = 5;

void put(const char* text) {
  if (write(STDOUT_FILENO, text, strlen(text)) < 0) _exit(126);
}

[[noreturn]] void fail(const ChildStart& start, const char* what) {
  const int error = errno;
  put(start.path);
  put(": ");
  put(what);
  put(": ");
  put(strerrordesc_np(error));
  put("\n");
  _exit(126);
}

void resetSignals(const ChildStart& start) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) sigaction(number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  if (sigprocmask(SIG_SETMASK, &none, nullptr) != 0) fail(start, "signal mask");
}

// Duplicates both first: one may lie where the other belongs.
void arrangeDescriptors(const ChildStart& start) {
  if (start.output >= 0 &&
      (dup2(start.output, STDOUT_FILENO) < 0 || dup2(start.output, STDERR_FILENO) < 0)) {
    fail(start, "output");
  }
  const int lock = fcntl(start.lock, F_DUPFD, firstFreePlace);
  const int executable = fcntl(start.executable, F_DUPFD, firstFreePlace);
  if (lock < 0 || executable < 0 || dup2(start.null, STDIN_FILENO) < 0 ||
      dup2(lock, lockPlace) < 0 || dup3(executable, executablePlace, O_CLOEXEC) < 0 ||
      close_range(firstFreePlace, ~0U, 0) != 0) {
    fail(start, "descriptors");
  }
}

// Ambient: the program has it although its file grants none. No program that it starts itself could
// be given more.
bool keepNetBindService() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct kept[_LINUX_CAPABILITY_U32S_3] = {};
  constexpr uint32_t bit = 1U << CAP_NET_BIND_SERVICE;
  kept[0] = {bit, bit, bit};
  return syscall(SYS_capset, &header, kept) == 0 &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_NET_BIND_SERVICE, 0, 0) == 0;
}

void dropPrivileges(const ChildStart& start) {
  // Without this the change of user clears what is to be kept. exec ends it.
  if (start.netBindService && prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) fail(start, "capabilities");
  if (setgroups(1, &start.group) != 0 || setresgid(start.group, start.group, start.group) != 0 ||
      setresuid(start.user, start.user, start.user) != 0) {
    fail(start, "user");
  }
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct nothing[_LINUX_CAPABILITY_U32S_3] = {};
  if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 ||
      (start.netBindService ? !keepNetBindService() : syscall(SYS_capset, &header, nothing) != 0) ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    fail(start, "capabilities");
  }
}

// Never raises what this process itself was given.
void lower(const ChildStart& start, decltype(RLIMIT_CORE) resource, rlim_t most) {
  rlimit limit = {};
  if (getrlimit(resource, &limit) != 0) fail(start, "limits");
  limit.rlim_max = std::min(limit.rlim_max, most);
  limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
  if (setrlimit(resource, &limit) != 0) fail(start, "limits");
}

bool isFile(int descriptor) {
  struct stat info = {};
  return fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode);
}

// After the change of user, which the kernel would refuse the program to run after. With a bound of
// 0 the user's other processes do not count.
void limitResources(const ChildStart& start) {
  lower(start, RLIMIT_NPROC, 0);
  lower(start, RLIMIT_CORE, 0);
  lower(start, RLIMIT_NOFILE, ChildStart::mostDescriptors);
  lower(start, RLIMIT_MEMLOCK, 0);
  lower(start, RLIMIT_MSGQUEUE, 0);
  if (!confined) return;
  lower(start, RLIMIT_AS, ChildStart::mostAddressSpace);
  // A log that is a file may grow longer.
  if (!isFile(STDOUT_FILENO) && !isFile(STDERR_FILENO)) {
    lower(start, RLIMIT_FSIZE, ChildStart::longestFile);
  }
}

// After the change of user, which clears the setting.
void endWithParent(const ChildStart& start) {
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) fail(start, "parent's end");
  if (getppid() != start.parent) _exit(126);
}

}  // namespace

void becomeProgram(const ChildStart& start) {
  resetSignals(start);
  arrangeDescriptors(start);
  // Only now: closing any other descriptor of the file would release the lock.
  if (!takeLock(lockPlace)) fail(start, "lock");
  if (setsid() < 0 || chdir("/") != 0) fail(start, "session");
  umask(077);
  dropPrivileges(start);
  limitResources(start);
  endWithParent(start);
  const char* const arguments[] = {start.path, nullptr};
  const char* const environment[] = {
      "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
  execveat(executablePlace, "", const_cast<char* const*>(arguments),
           const_cast<char* const*>(environment), AT_EMPTY_PATH);
  fail(start, "cannot be run");
}

}  // namespace lumen
