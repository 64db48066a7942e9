#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "lumen/values/Result.h"

namespace lumen {

/// What is to be run, and as whom.
struct Program {
  std::string executable;       ///< absolute path
  uid_t user = 0;               ///< never root
  gid_t group = 0;              ///< its only group
  bool netBindService = false;  ///< keeps CAP_NET_BIND_SERVICE
  std::string lockFile;         ///< held by the process as long as it lives, made when missing
};

/// Starts and ends processes, for the supervisor.
class Processes {
 public:
  /// Is notified of the end of processes.
  class Observer {
   public:
    virtual ~Observer() = default;
    /// `pid` was started here and is reaped; `status` is as waitpid gives it.
    virtual void processEnded(pid_t pid, int status) = 0;
  };

  virtual ~Processes() = default;

  /// The one observer; it must live until the last call.
  virtual void setObserver(Observer& observer) = 0;

  /// Starts `program` without privileges but the one that it is to keep; it gets SIGTERM when this
  /// process ends. Whether the program itself can be run shows in its exit status only. Does not
  /// call the observer before it returns.
  [[nodiscard]] virtual Result<pid_t> start(const Program& program) = 0;

  /// Sends a signal to a process that was started here and is not reaped yet.
  virtual void signal(pid_t pid, int signal) = 0;

  /// Bytes of physical memory, shared pages included, of this process or of one that was started
  /// here and is not reaped yet. 0: not known.
  [[nodiscard]] virtual uint64_t residentMemory(pid_t pid) const = 0;

  /// The process that holds `lockFile`; 0: none; below 0: one without a number here.
  [[nodiscard]] virtual pid_t lockHolder(const std::string& lockFile) = 0;

  /// Kills the process that holds `lockFile`, if one does.
  virtual void killLockHolder(const std::string& lockFile) = 0;
};

}  // namespace lumen
