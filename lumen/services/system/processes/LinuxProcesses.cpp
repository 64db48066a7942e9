#include "lumen/services/system/processes/LinuxProcesses.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// This header has no C++ linkage of its own.
extern "C" {
#include <sys/pidfd.h>
}

#include "lumen/services/system/processes/ChildStart.h"
#include "lumen/services/system/processes/Journal.h"
#include "lumen/services/system/processes/LockFile.h"
#include "platform/Watch.h"

namespace lumen {

namespace {

Failure failed(const std::string& what) { return {what + ": " + strerror(errno)}; }

// A descriptor that only names the file: it needs no right to read it.
lm::Fd openExecutable(const std::string& path) {
  return lm::Fd(::open(path.c_str(), O_PATH | O_CLOEXEC));
}

// Where this process's output goes to the journal, each program gets a stream of its own there, so
// that its lines bear its name.
lm::Fd openOutput(const std::string& executable) {
  if (!journal::isStream(STDOUT_FILENO, getenv("JOURNAL_STREAM"))) return {};
  return journal::open(executable.substr(executable.rfind('/') + 1));
}

// Returns in this process only.
pid_t startProcess(const ChildStart& start) {
  const pid_t pid = fork();
  if (pid == 0) becomeProgram(start);
  return pid;
}

int waitStatus(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return W_EXITCODE(info.si_status, 0);
  return W_EXITCODE(0, info.si_status);
}

}  // namespace

/// A process whose end is waited for. Its descriptor keeps the number from being used again.
class LinuxProcesses::Child {
 public:
  Child(LinuxProcesses& owner, pid_t pid, lm::Fd handle)
      : owner_(owner), pid_(pid), handle_(std::move(handle)) {
    watch_.start<&Child::readable>(handle_.get(), *this, lm::watchRead);
  }

  void send(int number) const { pidfd_send_signal(handle_.get(), number, nullptr, 0); }

 private:
  void readable(int fd) {
    siginfo_t info = {};
    if (waitid(P_PIDFD, static_cast<id_t>(fd), &info, WEXITED | WNOHANG) != 0) return;
    if (info.si_pid == pid_) owner_.ended(pid_, waitStatus(info));  // destroys *this
  }

  LinuxProcesses& owner_;
  pid_t pid_;
  lm::Fd handle_;
  lm::Watch watch_;
};

LinuxProcesses::LinuxProcesses() {
  // If the signal were ignored, as it may be inherited, the kernel would reap the children itself
  // and their exit status would be lost.
  ::signal(SIGCHLD, SIG_DFL);
}

LinuxProcesses::~LinuxProcesses() = default;

Result<void> LinuxProcesses::open(const std::string& executable) {
  lm::Fd fd = openExecutable(executable);
  if (!fd.valid()) return failed(executable);
  opened_[executable] = std::move(fd);
  return {};
}

void LinuxProcesses::setObserver(Observer& observer) { observer_ = &observer; }

Result<pid_t> LinuxProcesses::start(const Program& program) {
  const auto known = opened_.find(program.executable);
  const lm::Fd fresh = known == opened_.end() ? openExecutable(program.executable) : lm::Fd();
  const int executable = known == opened_.end() ? fresh.get() : known->second.get();
  if (executable < 0) return failed(program.executable);
  const lm::Fd lock = openLockFile(program.lockFile);
  if (!lock.valid()) return failed(program.lockFile);
  const lm::Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null.valid()) return failed("/dev/null");
  const lm::Fd output = openOutput(program.executable);
  ChildStart childStart;
  childStart.path = program.executable.c_str();
  childStart.executable = executable;
  childStart.lock = lock.get();
  childStart.null = null.get();
  childStart.output = output.get();
  childStart.netBindService = program.netBindService;
  childStart.user = program.user;
  childStart.group = program.group;
  childStart.parent = getpid();

  const pid_t pid = startProcess(childStart);
  if (pid < 0) return failed("fork");
  lm::Fd handle(pidfd_open(pid, 0));
  if (!handle.valid()) {
    Failure failure = failed("pidfd_open");
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return failure;
  }
  children_.emplace(pid, std::make_unique<Child>(*this, pid, std::move(handle)));
  return pid;
}

void LinuxProcesses::signal(pid_t pid, int signal) {
  const auto child = children_.find(pid);
  if (child != children_.end()) child->second->send(signal);
}

// statm, unlike most that /proc says about a process, may be read by any process that sees it. A
// /proc that is mounted with hidepid shows every process to the group of root.
uint64_t LinuxProcesses::residentMemory(pid_t pid) const {
  const std::string path = "/proc/" + std::to_string(pid) + "/statm";
  const lm::Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 128> text{};
  if (!file.valid() || read(file.get(), text.data(), text.size() - 1) <= 0) return 0;
  uint64_t pages = 0;
  if (sscanf(text.data(), "%*u %" SCNu64, &pages) != 1) return 0;
  return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

pid_t LinuxProcesses::lockHolder(const std::string& lockFile) {
  const lm::Fd lock = openLockFile(lockFile);
  return lock.valid() ? holderOf(lock.get()) : 0;
}

void LinuxProcesses::killLockHolder(const std::string& lockFile) {
  const lm::Fd lock = openLockFile(lockFile);
  if (!lock.valid()) return;
  const pid_t holder = holderOf(lock.get());
  if (holder <= 0) return;
  const lm::Fd handle(pidfd_open(holder, 0));
  // Checked again: another process may have got the number before the descriptor was opened.
  if (handle.valid() && holderOf(lock.get()) == holder) {
    pidfd_send_signal(handle.get(), SIGKILL, nullptr, 0);
  }
}

void LinuxProcesses::ended(pid_t pid, int status) {
  children_.erase(pid);
  if (observer_ != nullptr) observer_->processEnded(pid, status);
}

}  // namespace lumen
