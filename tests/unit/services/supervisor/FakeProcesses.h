#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/system/processes/Processes.h"

namespace lumen::test {

/// Processes that exist only here: a test reads what was started and decides how it ends.
class FakeProcesses : public Processes {
 public:
  void setObserver(Observer& observer) override { observer_ = &observer; }

  Result<pid_t> start(const Program& program) override {
    if (failToStart) return Failure{"fork: Out of memory"};
    started.push_back(program);
    running_.push_back(nextPid_);
    return nextPid_++;
  }

  void signal(pid_t pid, int signal) override { signals.emplace_back(pid, signal); }

  [[nodiscard]] uint64_t residentMemory(pid_t pid) const override {
    const auto found = memory.find(pid);
    return found == memory.end() ? 0 : found->second;
  }

  pid_t lockHolder(const std::string& lockFile) override {
    const auto found = holders.find(lockFile);
    return found == holders.end() ? 0 : found->second;
  }

  void killLockHolder(const std::string& lockFile) override { killed.push_back(lockFile); }

  /// The process that was started last.
  [[nodiscard]] pid_t last() const { return nextPid_ - 1; }
  [[nodiscard]] size_t running() const { return running_.size(); }

  void exit(pid_t pid, int status) { end(pid, status << 8); }
  void dieBySignal(pid_t pid, int signal) { end(pid, signal); }

  bool failToStart = false;
  std::vector<Program> started;
  std::vector<std::pair<pid_t, int>> signals;
  std::map<std::string, pid_t> holders;  // of lock files
  std::map<pid_t, uint64_t> memory;      // of processes
  std::vector<std::string> killed;       // lock files whose holder was killed

 private:
  void end(pid_t pid, int status) {
    std::erase(running_, pid);
    observer_->processEnded(pid, status);
  }

  Observer* observer_ = nullptr;
  pid_t nextPid_ = 1000;
  std::vector<pid_t> running_;
};

}  // namespace lumen::test
