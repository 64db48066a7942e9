#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cap-ng.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/processes/LinuxProcesses.h"
#include "lumen/services/system/processes/LockFile.h"
#include "lumen/services/system/processes/Privileges.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

constexpr uid_t user = 54321;
constexpr gid_t group = 54322;

/// Starts real processes as another user, which needs root.
class LinuxProcessesTest : public testing::Test, public Processes::Observer {
 protected:
  LinuxProcessesTest() {
    chmod(folder_.path().c_str(), 0755);
    processes.setObserver(*this);
  }

  void SetUp() override { ASSERT_EQ(geteuid(), 0U) << "these tests must be run by root"; }

  void TearDown() override {
    for (const pid_t pid : running_) processes.signal(pid, SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return running_.empty(); }));
  }

  void processEnded(pid_t pid, int status) override {
    running_.erase(pid);
    endedPid = pid;
    endedStatus = status;
  }

  [[nodiscard]] Program program(const std::string& executable) const {
    Program program;
    program.executable = executable;
    program.user = user;
    program.group = group;
    program.netBindService = netBindService;
    program.lockFile = folder_.file("service.lock");
    return program;
  }

  /// Starts a program whose output goes to a file.
  Result<pid_t> start(const std::string& executable) {
    fflush(stdout);
    const lm::Fd kept(dup(STDOUT_FILENO));
    const lm::Fd file(
        open(outputFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    dup2(file.get(), STDOUT_FILENO);
    const Result<pid_t> pid = processes.start(program(executable));
    if (pid) running_.insert(*pid);
    dup2(kept.get(), STDOUT_FILENO);
    return pid;
  }

  /// A journal where programs look for it, which only this test program and what it starts see.
  [[nodiscard]] static lm::Fd journalListens() {
    EXPECT_EQ(unshare(CLONE_NEWNS), 0);
    EXPECT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    EXPECT_EQ(mount("none", "/run", "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories("/run/systemd/journal");
    lm::Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/stdout"};
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    return listener;
  }
  /// As systemd announces it, for the file that start() puts in place of the output.
  void writesToTheJournal() const {
    folder_.write("output", "");
    struct stat info = {};
    ASSERT_EQ(stat(outputFile().c_str(), &info), 0);
    const std::string named = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    setenv("JOURNAL_STREAM", named.c_str(), 1);
  }

  template <typename Condition>
  [[nodiscard]] bool waitUntil(Condition condition) {
    const auto limit = clock.now() + 20s;
    while (!condition()) {
      if (clock.now() > limit) return false;
      loop.turn(20ms);
    }
    return true;
  }

  [[nodiscard]] std::string outputFile() const { return folder_.file("output"); }
  [[nodiscard]] std::string output() const { return folder_.read("output"); }
  [[nodiscard]] bool hasEnded() {
    return waitUntil([&] { return endedPid != 0; });
  }
  [[nodiscard]] bool isReady() {
    return waitUntil([&] { return output().find("\nready\n") != std::string::npos; });
  }

  lm::test::TempDir folder_;
  lm::SystemClock clock;
  lm::EventLoop loop{clock};
  LinuxProcesses processes;
  std::set<pid_t> running_;
  bool netBindService = false;  // of the program that is started next
  pid_t endedPid = 0;
  int endedStatus = -1;
};

/// The values of the lines "name: value" of the probe's output.
std::multiset<std::string> values(const std::string& output, const std::string& name) {
  std::multiset<std::string> found;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(name + ":")) continue;
    const size_t begin = line.find_first_not_of(" \t", name.size() + 1);
    const size_t end = line.find_last_not_of(" \t");
    found.insert(begin == std::string::npos ? "" : line.substr(begin, end - begin + 1));
  }
  return found;
}

using Values = std::multiset<std::string>;

// Promise [service-privileges]: A service starts as its user and in its group alone, without any
// capability and with no_new_privs set.
// Promise [service-descriptors]: A service starts with descriptors 0 to 2 open, its input at its
// end, and no others but its lock.
// Promise [service-environment]: A service starts with an empty signal mask, default dispositions,
// umask 077, in `/`, in its own session and with `PATH` as its only variable.
// Promise [service-term]: A service gets SIGTERM from the kernel when lumend ends, however that
// ends.
TEST_F(LinuxProcessesTest, StartsAProcessWithNothingThatItShouldNotHave) {
  // What it must not inherit.
  const lm::Fd leak(open("/dev/null", O_RDONLY));
  signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  setenv("SECRET", "of the starter", 1);

  const Result<pid_t> pid = start(SERVICE_PROBE);
  sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
  signal(SIGPIPE, SIG_DFL);
  ASSERT_TRUE(pid);
  ASSERT_TRUE(isReady()) << output();

  const std::string seen = output();
  EXPECT_EQ(values(seen, "Uid"), Values{"54321\t54321\t54321\t54321"});
  EXPECT_EQ(values(seen, "Gid"), Values{"54322\t54322\t54322\t54322"});
  EXPECT_EQ(values(seen, "Groups"), Values{"54322"});
  for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(values(seen, set), Values{"0000000000000000"}) << set;
  }
  EXPECT_EQ(values(seen, "NoNewPrivs"), Values{"1"});
  // MIPS has twice as many signals.
  const Values none = {std::string(SIGRTMAX > 64 ? 32 : 16, '0')};
  EXPECT_EQ(values(seen, "SigBlk"), none);
  EXPECT_EQ(values(seen, "SigIgn"), none);
  EXPECT_EQ(values(seen, "Umask"), Values{"0077"});
  EXPECT_EQ(values(seen, "descriptor"), (Values{"0", "1", "2", "3"}));
  EXPECT_EQ(values(seen, "variable"),
            Values{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"});
  EXPECT_EQ(values(seen, "name"), Values{SERVICE_PROBE});
  EXPECT_EQ(values(seen, "parent's end"), Values{std::to_string(SIGTERM)});
  EXPECT_EQ(values(seen, "leads its session"), Values{"1"});
  EXPECT_EQ(values(seen, "directory"), Values{"/"});
  EXPECT_EQ(values(seen, "input is at its end"), Values{"1"});

  processes.signal(*pid, SIGTERM);
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(endedPid, *pid);
  EXPECT_TRUE(WIFSIGNALED(endedStatus));
  EXPECT_EQ(WTERMSIG(endedStatus), SIGTERM);
}

// Promise: The resident memory of a service is known as long as its process runs, also where /proc
// hides the processes of other users.
TEST_F(LinuxProcessesTest, KnowsTheMemoryOfItsProcesses) {
  // As systemd's ProtectProc=invisible does it, and with no capability that makes up for it.
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("proc", "/proc", "proc", 0, "hidepid=invisible,subset=pid"), 0);
  // Without its capabilities root cannot enter the folder of another user, where it may lie.
  ASSERT_TRUE(processes.open(SERVICE_PROBE));
  const std::array<unsigned, 3> kept = {CAP_SETUID, CAP_SETGID, CAP_KILL};
  ASSERT_TRUE(keepCapabilities(kept));

  const Result<pid_t> pid = start(SERVICE_PROBE);
  ASSERT_TRUE(pid);
  ASSERT_TRUE(isReady()) << output();
  constexpr uint64_t page = 4096;
  EXPECT_GT(processes.residentMemory(*pid), 50 * page);
  EXPECT_EQ(processes.residentMemory(*pid) % page, 0U);
  EXPECT_LT(processes.residentMemory(*pid), processes.residentMemory(getpid()));
  processes.signal(*pid, SIGTERM);
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(processes.residentMemory(*pid), 0U);
}

// Promise: A service whose file grants it `net-bind-service` has
// CAP_NET_BIND_SERVICE, no other capability, and no way to get one.
TEST_F(LinuxProcessesTest, LetsAProcessKeepTheCapabilityToBindLowPortsAlone) {
  netBindService = true;
  const Result<pid_t> pid = start(SERVICE_PROBE);
  ASSERT_TRUE(pid);
  ASSERT_TRUE(isReady()) << output();
  const std::string seen = output();
  EXPECT_EQ(values(seen, "Uid"), Values{"54321\t54321\t54321\t54321"});
  EXPECT_EQ(values(seen, "Groups"), Values{"54322"});
  for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(values(seen, set), Values{"0000000000000400"}) << set;
  }
  EXPECT_EQ(values(seen, "NoNewPrivs"), Values{"1"});
  processes.signal(*pid, SIGTERM);
  ASSERT_TRUE(hasEnded());
}

// Promise: A service can start no process, whatever else runs under its user, dumps
// no core, and has at most 1,024 descriptors, 256 MiB of address space and 1 MiB in each file that
// it writes.
TEST_F(LinuxProcessesTest, BoundsWhatAProcessCanUse) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const lm::Fd reading(ends[0]);
  lm::Fd writing(ends[1]);
  fflush(stdout);
  const lm::Fd keptOutput(dup(STDOUT_FILENO));
  const lm::Fd keptError(dup(STDERR_FILENO));
  dup2(writing.get(), STDOUT_FILENO);
  dup2(writing.get(), STDERR_FILENO);
  const Result<pid_t> pid = processes.start(program(SERVICE_PROBE));
  if (pid) running_.insert(*pid);
  dup2(keptOutput.get(), STDOUT_FILENO);
  dup2(keptError.get(), STDERR_FILENO);
  writing.reset();
  ASSERT_TRUE(pid);

  std::string seen;
  while (seen.find("\nready\n") == std::string::npos) {
    std::array<char, 4096> part{};
    const ssize_t got = read(reading.get(), part.data(), part.size());
    ASSERT_GT(got, 0) << seen;
    seen.append(part.data(), static_cast<size_t>(got));
  }
  EXPECT_EQ(values(seen, "fork"), Values{"Resource temporarily unavailable"});
  EXPECT_EQ(values(seen, "longest core"), Values{"0"});
  EXPECT_EQ(values(seen, "most descriptors"), Values{"1024"});
#if PALINODE_CONFINEMENT
  EXPECT_EQ(values(seen, "most address space"), Values{std::to_string(256 << 20)});
  EXPECT_EQ(values(seen, "longest file"), Values{std::to_string(128 << 10)});
#endif
}

// Promise: A service whose output goes to a file is not bound in the length of files, since its log
// may be longer.
TEST_F(LinuxProcessesTest, LetsALogThatIsAFileGrow) {
  ASSERT_TRUE(start(SERVICE_PROBE) && isReady()) << output();
  rlimit own{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &own), 0);
  EXPECT_EQ(values(output(), "longest file"),
            Values{own.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(own.rlim_max)});
}

// Promise: Services may share a user.
TEST_F(LinuxProcessesTest, StartsTwoServicesThatShareAUser) {
  ASSERT_TRUE(start(SERVICE_PROBE) && isReady()) << output();
  Program other = program("/bin/true");
  other.lockFile = folder_.file("other.lock");
  ASSERT_TRUE(processes.start(other) && hasEnded());
  EXPECT_EQ(endedStatus, 0);
}

// Promise: How a service's process ended is known, whatever signal dispositions lumend was started
// with, and starting one leaves no descriptor.
TEST_F(LinuxProcessesTest, ReportsTheExitStatus) {
  ASSERT_TRUE(start("/bin/false"));
  ASSERT_TRUE(hasEnded());
  EXPECT_TRUE(WIFEXITED(endedStatus));
  EXPECT_EQ(WEXITSTATUS(endedStatus), 1);
}

// Promise [service-lock]: A service holds its lock file as long as it lives; a second process under
// that lock ends with 126 before it is the service.
TEST_F(LinuxProcessesTest, HoldsTheLockAsLongAsTheProcessLives) {
  const std::string lock = program("").lockFile;
  EXPECT_EQ(processes.lockHolder(lock), 0);
  const Result<pid_t> pid = start(SERVICE_PROBE);
  ASSERT_TRUE(pid);
  ASSERT_TRUE(isReady());
  EXPECT_EQ(processes.lockHolder(lock), *pid);
  processes.killLockHolder(lock);
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(WTERMSIG(endedStatus), SIGKILL);
  EXPECT_EQ(processes.lockHolder(lock), 0);
}

// Also proves [service-lock].
TEST_F(LinuxProcessesTest, DoesNotRunASecondProcessUnderOneLock) {
  const Result<pid_t> first = start(SERVICE_PROBE);
  ASSERT_TRUE(first && isReady());
  const Result<pid_t> second = start(SERVICE_PROBE);
  ASSERT_TRUE(second && hasEnded());
  EXPECT_EQ(endedPid, *second);
  EXPECT_EQ(WEXITSTATUS(endedStatus), 126);
  EXPECT_NE(output().find(SERVICE_PROBE ": lock: "), std::string::npos) << output();
  EXPECT_EQ(processes.lockHolder(program("").lockFile), *first);
  processes.signal(*first, SIGKILL);
  endedPid = 0;
  EXPECT_TRUE(hasEnded());
}

// Promise: An executable runs also where its user cannot look.
TEST_F(LinuxProcessesTest, RunsAnExecutableThatTheUserCannotReach) {
  const std::string hidden = folder_.file("hidden");
  std::filesystem::create_directory(hidden);
  chmod(hidden.c_str(), 0700);
  std::filesystem::copy_file("/bin/true", hidden + "/true");
  ASSERT_TRUE(processes.open(hidden + "/true"));
  ASSERT_TRUE(start(hidden + "/true"));
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(endedStatus, 0) << output();
}

TEST_F(LinuxProcessesTest, ReportsTheEndEvenIfItsParentIgnoredSigchld) {
  ::signal(SIGCHLD, SIG_IGN);
  LinuxProcesses inheriting;
  inheriting.setObserver(*this);
  ASSERT_TRUE(inheriting.start(program("/bin/false")));
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(WEXITSTATUS(endedStatus), 1);
}

// Promise: When an executable cannot be run, the report has its path and the system's error text.
TEST_F(LinuxProcessesTest, ReportsWhatCannotBeRun) {
  const std::string missing = "/nowhere/program: No such file or directory";
  EXPECT_EQ(whyNot(processes.start(program("/nowhere/program"))), missing);
  EXPECT_EQ(whyNot(processes.open("/nowhere/program")), missing);
  folder_.write("text", "no program");
  ASSERT_TRUE(start(folder_.file("text")));
  ASSERT_TRUE(hasEnded());
  EXPECT_EQ(WEXITSTATUS(endedStatus), 126);
  EXPECT_EQ(output(), folder_.file("text") + ": cannot be run: Permission denied\n");
}

// Promise: What keeps a process from starting is reported, and leaves no child.
TEST_F(LinuxProcessesTest, ReportsWhatKeepsAProcessFromStarting) {
  Program nowhere = program("/bin/true");
  nowhere.lockFile = folder_.file("missing/service.lock");
  EXPECT_EQ(whyNot(processes.start(nowhere)), nowhere.lockFile + ": No such file or directory");
  const auto failure = [&] { return whyNot(processes.start(program("/bin/true"))); };
  whileRefused({SCMP_SYS(clone)}, EAGAIN,
               [&] { EXPECT_EQ(failure(), "fork: Resource temporarily unavailable"); });
  whileRefused({SCMP_SYS(pidfd_open)}, EMFILE,
               [&] { EXPECT_EQ(failure(), "pidfd_open: Too many open files"); });
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

// Promise: A service that cannot be isolated from lumend completely is not run: `/bin/true:
// capabilities: Operation not permitted`.
TEST_F(LinuxProcessesTest, RunsNoProgramThatIsNotIsolatedFromItsParent) {
  struct Case {
    int call;
    const char* what;
  };
  const Case cases[] = {{SCMP_SYS(close_range), "descriptors"}, {SCMP_SYS(dup3), "descriptors"},
                        {SCMP_SYS(setsid), "session"},          {SCMP_SYS(chdir), "session"},
                        {SCMP_SYS(setgroups), "user"},          {SCMP_SYS(setresgid), "user"},
                        {SCMP_SYS(setresuid), "user"},          {SCMP_SYS(prctl), "capabilities"},
                        {SCMP_SYS(capset), "capabilities"}};
  for (const Case& c : cases) {
    endedPid = 0;
    whileRefused({c.call}, EPERM, [&] { ASSERT_TRUE(start("/bin/true")); });
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(WEXITSTATUS(endedStatus), 126);
    EXPECT_EQ(output(), "/bin/true: " + std::string(c.what) + ": Operation not permitted\n");
  }
}

TEST_F(LinuxProcessesTest, GivesEachProgramItsOwnJournalStream) {
  const lm::Fd journal = journalListens();
  writesToTheJournal();
  const Result<pid_t> pid = start(SERVICE_PROBE);
  ASSERT_TRUE(pid);
  const lm::Fd stream(accept(journal.get(), nullptr, nullptr));
  std::string kept;
  char byte = 0;
  while (!kept.ends_with("\nready\n") && read(stream.get(), &byte, 1) == 1) kept += byte;
  EXPECT_TRUE(kept.starts_with("service_probe\n\n6\n0\n0\n0\n0\n")) << kept;
  EXPECT_EQ(values(kept, "descriptor"), (Values{"0", "1", "2", "3"}));
  EXPECT_EQ(output(), "");
  processes.signal(*pid, SIGKILL);
  EXPECT_TRUE(hasEnded());
}

TEST_F(LinuxProcessesTest, SharesItsOutputWhenTheJournalTakesNoStream) {
  const lm::Fd journal = journalListens();
  writesToTheJournal();
  whileRefused({SCMP_SYS(connect)}, EACCES, [&] {
    ASSERT_TRUE(start("/bin/echo"));
    ASSERT_TRUE(hasEnded());  // here: it is told to end when the thread that started it does
  });
  EXPECT_EQ(output(), "\n");
}

// Promise: lumend signals only what it has started, and kills only the holder of a service's lock.
TEST_F(LinuxProcessesTest, SignalsOnlyItsOwnChildren) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const lm::Fd reading(ends[0]);
  lm::Fd writing(ends[1]);
  const pid_t stranger = fork();
  if (stranger == 0) {
    close(ends[1]);
    char byte = 0;
    _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);  // until the other end is closed
  }
  processes.signal(stranger, SIGKILL);
  writing.reset();
  int status = 0;
  EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
  EXPECT_TRUE(WIFEXITED(status));
}

TEST_F(LinuxProcessesTest, FindsNoHolderOfAFreeLock) {
  const std::string missing = folder_.file("missing/service.lock");
  EXPECT_EQ(processes.lockHolder(missing), 0);
  processes.killLockHolder(missing);
  const std::string lock = program("").lockFile;
  EXPECT_EQ(processes.lockHolder(lock), 0);
  processes.killLockHolder(lock);
}

TEST_F(LinuxProcessesTest, LeavesNoDescriptorOpen) {
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  ASSERT_TRUE(start("/bin/true"));
  ASSERT_TRUE(hasEnded());
  const auto before = count();
  for (int i = 0; i < 5; ++i) {
    endedPid = 0;
    ASSERT_TRUE(start("/bin/true"));
    ASSERT_TRUE(hasEnded());
  }
  EXPECT_EQ(count(), before);
}

}  // namespace
}  // namespace lumen
