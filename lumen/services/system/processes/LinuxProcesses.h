#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "lumen/services/system/processes/Processes.h"
#include "platform/Fd.h"

namespace lumen {

/// Real processes. A child has descriptors 0 to 2 (0 is /dev/null) and 3, its lock, and no other;
/// an empty signal mask, default dispositions, a session of its own, no capability but the one that
/// Program grants and no way to get one, the limits of ChildStart.h, umask 077, directory "/" and
/// no environment but PATH.
class LinuxProcesses : public Processes {
 public:
  LinuxProcesses();
  LinuxProcesses(const LinuxProcesses&) = delete;
  LinuxProcesses& operator=(const LinuxProcesses&) = delete;
  ~LinuxProcesses() override;

  /// Opens an executable that is started later, when this process may no longer be able to open it.
  [[nodiscard]] Result<void> open(const std::string& executable);

  void setObserver(Observer& observer) override;
  [[nodiscard]] Result<pid_t> start(const Program& program) override;
  void signal(pid_t pid, int signal) override;
  [[nodiscard]] uint64_t residentMemory(pid_t pid) const override;
  [[nodiscard]] pid_t lockHolder(const std::string& lockFile) override;
  void killLockHolder(const std::string& lockFile) override;

 private:
  class Child;

  void ended(pid_t pid, int status);

  Observer* observer_ = nullptr;
  std::map<std::string, lm::Fd> opened_;
  std::map<pid_t, std::unique_ptr<Child>> children_;
};

}  // namespace lumen
