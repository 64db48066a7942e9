#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/keyctl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "core/Confinement.h"
#include "lumen/services/Confinement.h"
#include "lumen/services/resolver/Confinement.h"
#include "platform/Fd.h"

namespace {

using Work = std::function<void()>;

/// How a process ended, and what it printed.
struct End {
  int status = 0;
  std::string printed;
};

/// A process of its own does `work` after `confine`, then ends with 0.
End endOf(const Work& confine, const Work& work) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const lm::Fd reading(ends[0]);
  lm::Fd writing(ends[1]);
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    dup2(writing.get(), STDOUT_FILENO);
    confine();
    work();
    _exit(0);
  }
  writing.reset();
  End end;
  std::array<char, 256> part{};
  for (ssize_t got = 0; (got = read(reading.get(), part.data(), part.size())) > 0;) {
    end.printed.append(part.data(), static_cast<size_t>(got));
  }
  EXPECT_EQ(waitpid(pid, &end.status, 0), pid);
  return end;
}

struct Call {
  const char* name;
  Work make;
};

void mapExecutable() {
  mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

void makeExecutable() {
  void* const page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mprotect(page, 4096, PROT_READ | PROT_EXEC);
}

/// What no program of the platform may do.
std::vector<Call> forbiddenToAll() {
  return {
      {"ptrace", [] { ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
      {"process_vm_readv", [] { syscall(SYS_process_vm_readv, getppid(), 0, 0, 0, 0, 0); }},
      {"mount", [] { mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr); }},
      {"move_mount", [] { syscall(SYS_move_mount, -1, "", -1, "", 0); }},
      {"bpf", [] { syscall(SYS_bpf, 0, nullptr, 0); }},
      {"keyctl", [] { syscall(SYS_keyctl, KEYCTL_GET_KEYRING_ID, 0, 0, 0, 0); }},
      {"io_uring_setup", [] { syscall(SYS_io_uring_setup, 1, nullptr); }},
      {"unshare", [] { unshare(CLONE_NEWUSER); }},
      {"setns", [] { setns(-1, 0); }},
      {"clone", [] { syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0); }},
      {"perf_event_open", [] { syscall(SYS_perf_event_open, nullptr, 0, -1, -1, 0); }},
      {"userfaultfd", [] { syscall(SYS_userfaultfd, 0); }},
      {"syslog", [] { syscall(SYS_syslog, 10, nullptr, 0); }},
      {"mmap", mapExecutable},
      {"mprotect", makeExecutable},
  };
}

/// What only lumend may do.
std::vector<Call> forbiddenToServices() {
  return {
      {"execve", [] { execl("/bin/true", "true", nullptr); }},
      {"execveat", [] { syscall(SYS_execveat, -1, "/bin/true", nullptr, nullptr, 0); }},
      {"clone", [] { syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0); }},
      {"clone3", [] { syscall(SYS_clone3, nullptr, 0); }},
      {"vfork", [] { syscall(SYS_vfork); }},
      {"kill", [] { kill(getppid(), 0); }},
      {"rt_sigaction", [] { signal(SIGSYS, SIG_IGN); }},
      {"prctl", [] { syscall(SYS_prctl, 0, 0, 0, 0, 0); }},
      {"setuid", [] { syscall(SYS_setuid, getuid()); }},
      {"chmod", [] { syscall(SYS_chmod, "/nowhere", 0); }},
      {"socket", [] { socket(AF_NETLINK, SOCK_RAW, 0); }},
      {"socket", [] { socket(AF_UNIX, SOCK_STREAM, 0); }},
      {"socket", [] { socket(AF_PACKET, SOCK_RAW, 0); }},
      {"socket", [] { socket(AF_INET, SOCK_RAW, IPPROTO_ICMP); }},
      {"ioctl", [] { syscall(SYS_ioctl, 0, 0x5412 /* TIOCSTI */, ""); }},
  };
}

class ConfinementTest : public testing::Test {
 protected:
  void SetUp() override {
    if (PALINODE_CONFINEMENT == 0) GTEST_SKIP() << "this build is without confinement";
  }

  static void expectForbidden(const Work& confine, const std::vector<Call>& calls) {
    for (const Call& call : calls) {
      const End end = endOf(confine, call.make);
      EXPECT_TRUE(WIFSIGNALED(end.status)) << call.name;
      EXPECT_EQ(WTERMSIG(end.status), SIGSYS) << call.name;
      EXPECT_EQ(end.printed, std::string(program_invocation_short_name) +
                                 ": forbidden system call " + call.name + "\n");
    }
  }

  static void expectAllowed(const Work& confine, const Work& work) {
    const End end = endOf(confine, work);
    EXPECT_TRUE(WIFEXITED(end.status)) << end.printed;
    EXPECT_EQ(WEXITSTATUS(end.status), 0) << end.printed;
  }
};

// Promise: A system call that palinode-igd does not need ends it, and the log names the call:
// `palinode-igd: forbidden system call execve`.
TEST_F(ConfinementTest, EndsAGatewayThatMakesAForbiddenCall) {
  expectForbidden(confineGateway, forbiddenToAll());
  expectForbidden(confineGateway, forbiddenToServices());
  expectForbidden(confineGateway, {{"socket", [] { socket(AF_INET6, SOCK_STREAM, 0); }}});
}

// Promise: The same holds for lumen-resolver.
TEST_F(ConfinementTest, EndsAResolverThatMakesAForbiddenCall) {
  expectForbidden(lumen::confineResolver, forbiddenToAll());
  expectForbidden(lumen::confineResolver, forbiddenToServices());
  expectForbidden(lumen::confineResolver, {{"listen", [] { listen(-1, 1); }},
                                           {"unlink", [] { syscall(SYS_unlink, "/nowhere"); }}});
}

// Promise: A name server with an IPv6 address does not end the resolver: it asks the next one.
TEST_F(ConfinementTest, LetsAResolverTrySocketsThatItCannotHave) {
  expectAllowed(lumen::confineResolver, [] {
    if (socket(AF_INET6, SOCK_DGRAM, 0) >= 0 || errno != EAFNOSUPPORT) _exit(1);
  });
}

// Promise: lumend can start programs, and ends with the name of the call in its log when it traces
// another process, mounts, enters a namespace, or uses what else no platform needs.
TEST_F(ConfinementTest, EndsAPlatformThatMakesAForbiddenCall) {
  expectForbidden(lumen::confinePlatform, forbiddenToAll());
  expectAllowed(lumen::confinePlatform, [] {
    const pid_t child = fork();
    if (child == 0) execl("/bin/true", "true", nullptr);
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) _exit(1);
  });
}

// Promise: What lumend gave up none of its services gets back.
TEST_F(ConfinementTest, HoldsForWhatThePlatformStarts) {
  const End end = endOf(lumen::confinePlatform,
                        [] { execl("/usr/bin/unshare", "unshare", "--user", "true", nullptr); });
  EXPECT_TRUE(WIFSIGNALED(end.status));
  EXPECT_EQ(WTERMSIG(end.status), SIGSYS);
}

// Promise: A confined program still ends by SIGABRT when it finds an error in itself.
TEST_F(ConfinementTest, LeavesAbortAsItIs) {
  for (const Work& confine : {Work(confineGateway), Work(lumen::confineResolver)}) {
    const End end = endOf(confine, [] { abort(); });
    EXPECT_TRUE(WIFSIGNALED(end.status));
    EXPECT_EQ(WTERMSIG(end.status), SIGABRT) << end.printed;
  }
}

}  // namespace
