#include <ares.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/keyctl.h>
#include <linux/landlock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/FileAccess.h"
#include "core/Confinement.h"
#include "lumen/services/Confinement.h"
#include "lumen/services/resolver/Confinement.h"
#include "lumen/web/Confinement.h"
#include "platform/Fd.h"
#include "support/TempDir.h"

namespace {

using Work = std::function<void()>;

void confineResolver() {
  const std::string configuration = "/etc/resolv.conf";
  lumen::confineResolver({&configuration, 1});
}

void confineWeb() { lumen::web::confineWeb("/lumen/store/web"); }

/// Asks a port at which no name server listens, until the library gives up.
void askANameServer() {
  ares_options options = {};
  ares_channel channel = nullptr;
  if (ares_init_options(&channel, &options, 0) != ARES_SUCCESS) _exit(1);
  if (ares_set_servers_ports_csv(channel, "127.0.0.1:9") != ARES_SUCCESS) _exit(2);
  bool answered = false;
  ares_addrinfo_hints hints = {};
  hints.ai_family = AF_INET;
  hints.ai_flags = ARES_AI_NOSORT;
  const auto answer = [](void* done, int, int, ares_addrinfo* found) {
    *static_cast<bool*>(done) = true;
    ares_freeaddrinfo(found);
  };
  ares_getaddrinfo(channel, "nowhere.lan", nullptr, &hints, answer, &answered);
  while (!answered) {
    ares_socket_t socket = ARES_SOCKET_BAD;
    const bool any = (ares_getsock(channel, &socket, 1) & 1) != 0;
    pollfd ready = {any ? socket : -1, POLLIN, 0};
    poll(&ready, 1, 100);
    ares_process_fd(channel, ready.revents != 0 ? socket : ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  }
  ares_destroy(channel);
}

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
  expectForbidden(confineResolver, forbiddenToAll());
  expectForbidden(confineResolver, forbiddenToServices());
  expectForbidden(confineResolver, {{"listen", [] { listen(-1, 1); }},
                                    {"unlink", [] { syscall(SYS_unlink, "/nowhere"); }}});
}

// Promise: The same holds for lumen-web, which can send nothing to a host that did not connect to
// it.
TEST_F(ConfinementTest, EndsAStatusPageThatMakesAForbiddenCall) {
  expectForbidden(confineWeb, forbiddenToAll());
  expectForbidden(confineWeb, forbiddenToServices());
  expectForbidden(confineWeb, {{"connect", [] { connect(-1, nullptr, 0); }},
                               {"socket", [] { socket(AF_INET, SOCK_DGRAM, 0); }},
                               {"socket", [] { socket(AF_INET6, SOCK_STREAM, 0); }}});
}

// Promise: A name server with an IPv6 address does not end the resolver: it asks the next one.
TEST_F(ConfinementTest, LetsAResolverTrySocketsThatItCannotHave) {
  expectAllowed(confineResolver, [] {
    if (socket(AF_INET6, SOCK_DGRAM, 0) >= 0 || errno != EAFNOSUPPORT) _exit(1);
  });
}

// Promise: A confined resolver can ask a name server, whatever its library's version needs for
// that.
TEST_F(ConfinementTest, LetsAResolverAsk) { expectAllowed(confineResolver, askANameServer); }

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
  for (const Work& confine : {Work(confineGateway), Work(confineResolver)}) {
    const End end = endOf(confine, [] { abort(); });
    EXPECT_TRUE(WIFSIGNALED(end.status));
    EXPECT_EQ(WTERMSIG(end.status), SIGABRT) << end.printed;
  }
}

/// Where the kernel has Landlock.
class FileAccessTest : public ConfinementTest {
 protected:
  void SetUp() override {
    ConfinementTest::SetUp();
    if (IsSkipped()) return;
    if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < 0) {
      GTEST_SKIP() << "this kernel has no Landlock";
    }
  }

  /// Ends the process unless the file can be opened, or cannot.
  static void expectOpens(const std::string& path, int flags) {
    const lm::Fd file(open(path.c_str(), flags, 0600));
    if (!file.valid()) stop(path + ": " + strerror(errno));
  }
  static void expectRefused(const std::string& path, int flags) {
    const lm::Fd file(open(path.c_str(), flags, 0600));
    if (file.valid() || errno != EACCES) stop(path + " is not refused");
  }
  static void stop(const std::string& why) {
    if (write(STDOUT_FILENO, why.data(), why.size()) > 0) _exit(1);
  }
};

// Promise: Where the kernel has Landlock, palinode-igd can open its stores and its served files and
// nothing else.
TEST_F(FileAccessTest, HidesTheSystemFromAGateway) {
  expectAllowed(confineGateway, [] {
    expectRefused("/etc/passwd", O_RDONLY);
    expectRefused("/proc/self/status", O_RDONLY);
    expectRefused("/", O_RDONLY | O_DIRECTORY);
    expectRefused("/tmp/palinode-test", O_WRONLY | O_CREAT);
  });
}

TEST_F(FileAccessTest, LetsAStoreBeKept) {
  const lm::test::TempDir folder;
  folder.makeDirectory("store");
  folder.makeDirectory("other");
  folder.write("read", "text");
  const std::string store = folder.file("store");
  const std::vector<FileAccess> files = {
      {store, true}, {folder.file("read")}, {folder.file("missing")}};
  expectAllowed([&] { allowOnlyFiles(files); },
                [&] {
                  expectOpens(store + "/0.new", O_WRONLY | O_CREAT | O_TRUNC);
                  expectOpens(store + "/0.new", O_RDONLY);
                  expectOpens(store, O_RDONLY | O_DIRECTORY);
                  if (rename((store + "/0.new").c_str(), (store + "/0").c_str()) != 0 ||
                      unlink((store + "/0").c_str()) != 0) {
                    stop("a record is not replaced and removed");
                  }
                  if (mkdir((store + "/folder").c_str(), 0700) == 0) stop("makes folders");
                  expectOpens(folder.file("read"), O_RDONLY);
                  expectRefused(folder.file("read"), O_WRONLY);
                  expectRefused(folder.file("other"), O_RDONLY);
                  expectRefused(folder.file("new"), O_WRONLY | O_CREAT);
                });
}

// Promise: A resolver that is confined reads a resolv.conf that is a symbolic link, and one that
// has been replaced since.
TEST_F(FileAccessTest, FollowsAConfigurationThatIsReplaced) {
  const lm::test::TempDir folder;
  for (const char* made : {"etc", "run"}) folder.makeDirectory(made);
  folder.write("run/resolv.conf", "old");
  const std::string target = folder.file("run/resolv.conf");
  const std::string configuration = folder.file("etc/resolv.conf");
  ASSERT_EQ(symlink(target.c_str(), configuration.c_str()), 0);
  folder.write("secret", "text");

  std::array<int, 2> go{};
  std::array<int, 2> done{};
  ASSERT_EQ(pipe(go.data()), 0);
  ASSERT_EQ(pipe(done.data()), 0);
  const pid_t replacer = fork();
  if (replacer == 0) {
    char byte = 0;
    if (read(go[0], &byte, 1) != 1) _exit(1);
    folder.write("run/new", "new");
    const bool replaced = rename(folder.file("run/new").c_str(), target.c_str()) == 0;
    _exit(replaced && write(done[1], "", 1) == 1 ? 0 : 1);
  }
  expectAllowed(
      [&] {
        lumen::confineResolver({&configuration, 1});
      },
      [&] {
        expectOpens(configuration, O_RDONLY);
        char byte = 0;
        if (write(go[1], "", 1) != 1 || read(done[0], &byte, 1) != 1) stop("no answer");
        expectOpens(configuration, O_RDONLY);
        expectOpens("/etc/hosts", O_RDONLY);
        expectRefused(folder.file("secret"), O_RDONLY);
        expectRefused("/proc/self/status", O_RDONLY);
        expectRefused(configuration, O_WRONLY);
      });
  int status = 0;
  EXPECT_EQ(waitpid(replacer, &status, 0), replacer);
  EXPECT_EQ(status, 0);
  for (const int end : {go[0], go[1], done[0], done[1]}) close(end);
}

}  // namespace
