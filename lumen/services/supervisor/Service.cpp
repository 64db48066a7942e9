#include "lumen/services/supervisor/Service.h"

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "platform/wire/Broker.h"

namespace lumen {

namespace {

constexpr std::chrono::seconds firstDelay(1);
constexpr std::chrono::seconds longestDelay(60);
constexpr std::chrono::seconds stableRuntime(60);
constexpr std::chrono::milliseconds lockPoll(100);
constexpr std::chrono::seconds lockLimit(10);

std::string describe(int status) {
  if (WIFSIGNALED(status)) {
    // Signal 31 or 12 by the machine.
    const std::string why = WTERMSIG(status) == SIGSYS ? ", for a forbidden system call" : "";
    return "ended by signal " + std::to_string(WTERMSIG(status)) + why;
  }
  return "ended with exit status " + std::to_string(WEXITSTATUS(status));
}

Program programOf(const ServiceDefinition& definition, const std::string& runDirectory) {
  Program program;
  program.executable = definition.executable;
  program.user = definition.user;
  program.group = definition.group;
  program.netBindService = definition.netBindService;
  program.lockFile = runDirectory + "/" + definition.name + ".lock";
  return program;
}

}  // namespace

Service::Service(ServiceDefinition definition, Processes& processes, const lm::Clock& clock,
                 const std::string& runDirectory)
    : definition_(std::move(definition)),
      processes_(processes),
      clock_(clock),
      program_(programOf(definition_, runDirectory)) {}

void Service::boot() {
  if (phase_ == Phase::stopped) start();
}

bool Service::need(bool administrator) {
  if (shuttingDown_) return false;
  if (phase_ == Phase::stopped || (phase_ == Phase::backOff && administrator)) start();
  if (phase_ == Phase::up && leaving_) {
    nextLife_ =
        std::max(nextLife_, administrator ? NextLife::wantedByAdministrator : NextLife::wanted);
  }
  return phase_ != Phase::backOff;
}

void Service::registered() {
  registered_ = true;
  leaving_ = false;
  released_ = false;
  nextLife_ = NextLife::notWanted;
}

void Service::unregistered() {
  registered_ = false;
  leaving_ = true;
  released_ = true;
}

void Service::lost() {
  registered_ = false;
  leaving_ = true;
}

void Service::start() {
  timer_.stop();
  if (processes_.lockHolder(program_.lockFile) == 0) return launch();
  log("waits for the process that an earlier lumend has left");
  phase_ = Phase::waitingForLock;
  lockDeadline_ = clock_.now() + lockLimit;
  timer_.start<&Service::retry>(*this, timerDelay(lockPoll));
}

void Service::retry() {
  if (phase_ == Phase::backOff) return start();
  if (processes_.lockHolder(program_.lockFile) == 0) return launch();
  if (clock_.now() >= lockDeadline_) {
    log("kills the process that an earlier lumend has left");
    processes_.killLockHolder(program_.lockFile);
    // The lock may have another holder, which was not visible before.
    lockDeadline_ = clock_.now() + lockLimit;
  }
  timer_.start<&Service::retry>(*this, timerDelay(lockPoll));
}

void Service::launch() {
  if (afterCrash_) ++restarts_;
  afterCrash_ = false;
  leaving_ = false;
  released_ = false;
  nextLife_ = NextLife::notWanted;
  startedAt_ = clock_.now();
  const Result<pid_t> pid = processes_.start(program_);
  if (!pid) return crashed("cannot be started (" + pid.why() + ")", false);
  pid_ = *pid;
  phase_ = Phase::up;
  log("started, process " + std::to_string(pid_));
}

void Service::ended(int status) {
  pid_ = 0;
  if (clock_.now() - startedAt_ >= stableRuntime) delay_ = {};
  if (shuttingDown_) {
    log(describe(status));
    phase_ = Phase::stopped;
    observer_->unavailable(definition_.number);
  } else if (released_ && status == 0) {
    endedCleanly();
  } else {
    crashed(describe(status), nextLife_ == NextLife::wantedByAdministrator);
  }
}

void Service::endedCleanly() {
  log("ended, not needed now");
  phase_ = Phase::stopped;
  if (nextLife_ != NextLife::notWanted) start();
}

void Service::crashed(const std::string& how, bool startAtOnce) {
  delay_ = delay_ == delay_.zero() ? firstDelay : std::min(2 * delay_, longestDelay);
  afterCrash_ = true;
  if (startAtOnce) {
    log(how + ", starts again at once");
    return start();
  }
  log(how + ", starts again in " + std::to_string(delay_.count()) + " s");
  phase_ = Phase::backOff;
  nextStart_ = clock_.now() + delay_;
  timer_.start<&Service::retry>(*this, timerDelay(delay_));
  observer_->unavailable(definition_.number);
}

void Service::shutDown() {
  shuttingDown_ = true;
  timer_.stop();
  if (phase_ == Phase::up) {
    processes_.signal(pid_, SIGTERM);
  } else {
    phase_ = Phase::stopped;
    observer_->unavailable(definition_.number);
  }
}

void Service::kill() {
  if (pid_ == 0) return;
  log("is killed, since it does not end");
  processes_.signal(pid_, SIGKILL);
}

void Service::end(const std::string& why) {
  if (pid_ == 0 || pid_ == ended_) return;
  ended_ = pid_;
  log("is killed: " + why);
  processes_.signal(pid_, SIGKILL);
}

std::string Service::state() const {
  if (registered_) return lm::broker::state::running;
  switch (phase_) {
    case Phase::stopped:
      return lm::broker::state::stopped;
    case Phase::backOff:
      return lm::broker::state::waiting;
    case Phase::waitingForLock:
      return lm::broker::state::starting;
    case Phase::up:
      break;
  }
  return leaving_ ? lm::broker::state::leaving : lm::broker::state::starting;
}

lm::message Service::record() const {
  // At least 1 while the timer of a back-off has not run: 0 would say that there is none.
  const auto wait = std::max(nextStart_ - clock_.now(), std::chrono::milliseconds(1));
  const bool backsOff = phase_ == Phase::backOff;
  lm::message record;
  record.insert_u32(lm::broker::listed::number, definition_.number);
  record.insert_string(lm::broker::listed::name, definition_.name);
  record.insert_string(lm::broker::listed::state, state());
  record.insert_u32(lm::broker::listed::pid, static_cast<uint32_t>(pid_));
  record.insert_u32(lm::broker::listed::restarts, restarts_);
  record.insert_u64(lm::broker::listed::nextStart,
                    backsOff ? static_cast<uint64_t>(wait.count()) : 0);
  record.insert_string(lm::broker::listed::program,
                       program_.executable.substr(program_.executable.rfind('/') + 1));
  record.insert_u64(lm::broker::listed::residentMemory,
                    pid_ == 0 ? 0 : processes_.residentMemory(pid_));
  return record;
}

void Service::log(const std::string& text) const { lm::logLine(definition_.name, ": ", text); }

}  // namespace lumen
