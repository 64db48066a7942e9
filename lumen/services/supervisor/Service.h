#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/services/broker/Services.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/services/system/processes/Processes.h"
#include "platform/Timer.h"
#include "platform/message.h"

namespace lumen {

/// One service and its process, of which there is at most one at a time.
///
/// A process that has unregistered and exits with 0 was not needed any more; every other end is a
/// crash, after which the next start is put off by a second, and by twice as long after each
/// further crash, up to a minute. A process that ran for a minute, however it ended, resets
/// the back-off.
class Service {
 public:
  /// `processes` and `clock` must outlive this. `runDirectory` holds the lock file.
  Service(ServiceDefinition definition, Processes& processes, const lm::Clock& clock,
          const std::string& runDirectory);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  void setObserver(Services::Observer& observer) { observer_ = &observer; }

  /// Starts it unless it runs or is about to.
  void boot();
  /// See Services.
  [[nodiscard]] bool need(bool administrator);
  void registered();
  void unregistered();
  void lost();

  /// Its process, pid(), has been reaped.
  void ended(int status);
  /// No more starts; a process that runs is asked to end.
  void shutDown();
  void kill();
  /// Kills its process, which counts as a crash. Once for each process.
  void end(const std::string& why);

  [[nodiscard]] const ServiceDefinition& definition() const { return definition_; }
  /// 0: it has no process.
  [[nodiscard]] pid_t pid() const { return pid_; }
  /// With the fields of lm::broker::listed.
  [[nodiscard]] lm::message record() const;

 private:
  enum class Phase { stopped, waitingForLock, up, backOff };
  enum class NextLife { notWanted, wanted, wantedByAdministrator };

  [[nodiscard]] std::string state() const;
  void start();
  void launch();
  void retry();
  void endedCleanly();
  void crashed(const std::string& how, bool startAtOnce);
  void log(const std::string& text) const;

  const ServiceDefinition definition_;
  Processes& processes_;
  const lm::Clock& clock_;
  const Program program_;
  Services::Observer* observer_ = nullptr;

  Phase phase_ = Phase::stopped;
  pid_t pid_ = 0;
  pid_t ended_ = 0;  // the process that end() has killed
  bool registered_ = false;
  bool leaving_ = false;   // the process was registered and is not any more
  bool released_ = false;  // ... since it has unregistered
  NextLife nextLife_ = NextLife::notWanted;
  bool shuttingDown_ = false;
  bool afterCrash_ = false;
  uint32_t restarts_ = 0;
  lm::Clock::Time startedAt_;
  lm::Clock::Time lockDeadline_;   // then the holder is killed
  lm::Clock::Time nextStart_;      // after a back-off
  std::chrono::seconds delay_{0};  // the last back-off; 0: the next one is the first
  lm::Timer timer_;
};

}  // namespace lumen
