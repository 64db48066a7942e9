#include "lumen/runtime/EventLoop.h"

#include <ev.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "lumen/runtime/Descriptors.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/TimerQueue.h"

namespace lm {
namespace {

/// How long a descriptor that stays ready without progress is left alone, in milliseconds.
constexpr uint64_t pause = 100;

constexpr unsigned loopFlags = unsigned{EVBACKEND_EPOLL} | unsigned{EVFLAG_NOENV};

EventLoop* theLoop = nullptr;

}  // namespace

class EventLoop::State {
 public:
  explicit State(const Clock& time);
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State();

  void add(int fd, void* owner, SocketCallback callback, unsigned flags);
  void remove(int fd);

  /// Waits until a watch is ready or a timer due, and notes which watches are ready. `now` is the
  /// time at which the wait begins.
  void wait(uint64_t now, std::optional<uint64_t> longest);
  void dispatchReady();
  /// Calls the timers that were due at `now`, but for those that were added since `added` was read.
  void dispatchTimers(uint64_t now, uint64_t added);
  [[nodiscard]] std::optional<uint64_t> nextDue() const;

  const Clock& clock;
  TimerQueue timers;

 private:
  struct Watch {
    ev_io io{};
    void* owner = nullptr;
    SocketCallback callback = nullptr;
    unsigned flags = 0;
    uint64_t serial = 0;  // tells the watch from an earlier one of the same descriptor
    bool listening = false;
    bool stuck = false;        // its last callback made no progress
    uint64_t pausedUntil = 0;  // 0: not paused
  };
  /// A watch that was ready when it was looked at; it may have gone since.
  struct Ready {
    int fd = -1;
    uint64_t serial = 0;
    unsigned flags = 0;
  };

  static void becameReady(struct ev_loop* loop, ev_io* io, int events);
  static void waitedLongEnough(struct ev_loop*, ev_timer*, int) {}
  static void registersAnew(struct ev_loop* loop, ev_fork* fork, int events);
  void start(Watch& watch);
  void dropClosed(int fd);
  [[nodiscard]] Watch* find(const Ready& ready);
  void dispatchListeners();
  void dispatchListener(const Ready& ready);
  void judge(const Ready& ready, bool progress);
  void endPauses();

  struct ev_loop* ev_;
  ev_timer limit_{};              // ends a wait
  ev_fork anew_{};                // tells that libev is about to register all descriptors anew
  std::map<int, Watch> watches_;  // libev knows the addresses of its elements
  std::vector<Ready> listeners_;  // those that are not paused
  std::vector<int> paused_;
  std::vector<int> started_;  // libev registers them at the next wait
  std::vector<Ready> ready_;  // noted by the last wait, listeners left out
  uint64_t lastSerial_ = 0;
};

EventLoop::State::State(const Clock& time) : clock(time), ev_(ev_loop_new(loopFlags)) {
  if (!ev_) fatal("event loop: ", strerror(errno));
  ev_init(&limit_, &State::waitedLongEnough);
  ev_fork_init(&anew_, &State::registersAnew);
  anew_.data = this;
  ev_fork_start(ev_, &anew_);
}

EventLoop::State::~State() {
  for (auto& [fd, watch] : watches_) ev_io_stop(ev_, &watch.io);
  ev_fork_stop(ev_, &anew_);
  ev_loop_destroy(ev_);
}

void EventLoop::State::add(int fd, void* owner, SocketCallback callback, unsigned flags) {
  if (fd < 0) return;
  remove(fd);
  Watch& watch = watches_[fd];
  watch.owner = owner;
  watch.callback = callback;
  watch.flags = flags;
  watch.serial = ++lastSerial_;
  watch.listening = isListening(fd);
  const int events = ((flags & watchRead) ? EV_READ : 0) | ((flags & watchWrite) ? EV_WRITE : 0);
  ev_io_init(&watch.io, &State::becameReady, fd, events);
  watch.io.data = this;
  start(watch);
}

void EventLoop::State::start(Watch& watch) {
  ev_io_start(ev_, &watch.io);
  started_.push_back(watch.io.fd);
  if (watch.listening) listeners_.push_back({watch.io.fd, watch.serial, watchRead});
}

void EventLoop::State::remove(int fd) {
  auto found = watches_.find(fd);
  if (found == watches_.end()) return;
  ev_io_stop(ev_, &found->second.io);
  watches_.erase(found);
  std::erase_if(listeners_, [fd](const Ready& listener) { return listener.fd == fd; });
  std::erase(paused_, fd);
}

void EventLoop::State::wait(uint64_t now, std::optional<uint64_t> longest) {
  if (const auto due = nextDue()) {
    const uint64_t left = *due > now ? *due - now : 0;
    longest = longest ? std::min(*longest, left) : left;
  }
  // Registering a closed descriptor is more than libev takes.
  for (int fd : std::exchange(started_, {})) dropClosed(fd);
  ready_.clear();
  if (longest == 0) {
    ev_run(ev_, EVRUN_NOWAIT);
  } else if (!longest) {
    ev_run(ev_, EVRUN_ONCE);
  } else {
    ev_now_update(ev_);
    ev_timer_set(&limit_, static_cast<double>(*longest) / 1000, 0.);
    ev_timer_start(ev_, &limit_);
    ev_run(ev_, EVRUN_ONCE);
    ev_timer_stop(ev_, &limit_);
  }
  // libev calls back in the reverse order of that in which the kernel reports.
  std::ranges::reverse(ready_);
  endPauses();
}

void EventLoop::State::becameReady(struct ev_loop*, ev_io* io, int events) {
  auto* self = static_cast<State*>(io->data);
  const int fd = io->fd;
  if (events & EV_ERROR) {
    self->dropClosed(fd);
    return;
  }
  const Watch& watch = self->watches_[fd];
  if (watch.listening) return;
  const unsigned flags =
      ((events & EV_READ) ? watchRead : 0) | ((events & EV_WRITE) ? watchWrite : 0);
  self->ready_.push_back({fd, watch.serial, flags});
}

/// libev does so when it gets events of a descriptor that was closed here and is open elsewhere.
void EventLoop::State::registersAnew(struct ev_loop*, ev_fork* fork, int) {
  auto* self = static_cast<State*>(fork->data);
  std::vector<int> all;
  for (const auto& [fd, watch] : self->watches_) all.push_back(fd);
  for (int fd : all) self->dropClosed(fd);
}

void EventLoop::State::dropClosed(int fd) {
  if (!watches_.contains(fd) || fcntl(fd, F_GETFD) >= 0) return;
  logLine("event loop: descriptor ", fd, " was closed while watched");
  remove(fd);
}

EventLoop::State::Watch* EventLoop::State::find(const Ready& ready) {
  auto found = watches_.find(ready.fd);
  if (found == watches_.end() || found->second.serial != ready.serial) return nullptr;
  return &found->second;
}

void EventLoop::State::dispatchReady() {
  dispatchListeners();
  for (const Ready& ready : ready_) {
    const Watch* watch = find(ready);
    if (!watch) continue;
    watch->callback(watch->owner, ready.fd, ready.flags);
    watch = find(ready);
    if (watch) judge(ready, !isSpent(ready.fd, watch->flags));
    dispatchListeners();
  }
}

void EventLoop::State::dispatchTimers(uint64_t now, uint64_t added) {
  while (const auto timer = timers.takeDue(now, added)) {
    const auto [owner, callback] = *timer;
    callback(owner);
    dispatchListeners();
  }
}

void EventLoop::State::dispatchListeners() {
  std::vector<pollfd> look;
  for (const Ready& listener : listeners_) look.push_back({listener.fd, POLLIN, 0});
  if (look.empty() || poll(look.data(), look.size(), 0) <= 0) return;
  const std::vector<Ready> listeners = listeners_;
  for (size_t i = 0; i < look.size(); ++i) {
    if (look[i].revents != 0) dispatchListener(listeners[i]);
  }
}

void EventLoop::State::dispatchListener(const Ready& ready) {
  const Watch* watch = find(ready);
  if (!watch) return;
  // A callback that has accepted a client holds a descriptor more.
  const int before = lowestFreeDescriptor(ready.fd);
  watch->callback(watch->owner, ready.fd, watchRead);
  if (!find(ready)) return;
  judge(ready, lowestFreeDescriptor(ready.fd) != before || !isReadable(ready.fd));
}

void EventLoop::State::judge(const Ready& ready, bool progress) {
  Watch& watch = *find(ready);
  const bool again = watch.stuck;
  watch.stuck = !progress;
  if (progress || !again) return;
  ev_io_stop(ev_, &watch.io);
  watch.pausedUntil = clock.now() + pause;
  paused_.push_back(ready.fd);
  std::erase_if(listeners_, [&](const Ready& listener) { return listener.fd == ready.fd; });
}

void EventLoop::State::endPauses() {
  std::erase_if(paused_, [this, now = clock.now()](int fd) {
    Watch& watch = watches_[fd];
    if (watch.pausedUntil > now) return false;
    watch.pausedUntil = 0;
    start(watch);
    return true;
  });
}

std::optional<uint64_t> EventLoop::State::nextDue() const {
  std::optional<uint64_t> due = timers.nextDue();
  for (int fd : paused_) {
    const uint64_t end = watches_.at(fd).pausedUntil;
    due = due ? std::min(*due, end) : end;
  }
  return due;
}

EventLoop::EventLoop(const Clock& clock) : state_(std::make_unique<State>(clock)) {
  if (theLoop) fatal("event loop: there is one already");
  theLoop = this;
}

EventLoop::~EventLoop() { theLoop = nullptr; }

void EventLoop::addTimer(void* owner, TimerCallback callback, uint32_t delay) {
  state_->timers.add({owner, callback}, state_->clock.now() + uint64_t{delay} * 10);
}

void EventLoop::removeTimer(void* owner, TimerCallback callback) {
  state_->timers.remove({owner, callback});
}

void EventLoop::addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) {
  state_->add(fd, owner, callback, flags);
}

void EventLoop::removeSocket(int fd) { state_->remove(fd); }

void EventLoop::turn(std::optional<uint64_t> limit) {
  const uint64_t now = state_->clock.now();
  const uint64_t added = state_->timers.added();
  state_->wait(now, limit);
  state_->dispatchReady();
  state_->dispatchTimers(now, added);
}

std::optional<uint64_t> EventLoop::nextDue() const { return state_->nextDue(); }

const Clock& EventLoop::clock() const { return state_->clock; }

const Clock& currentClock() {
  static const SystemClock system;
  return theLoop ? theLoop->clock() : system;
}

ThinRunner& getRunner() {
  if (!theLoop) fatal("event loop: there is none");
  return *theLoop;
}

}  // namespace lm
