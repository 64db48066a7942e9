#include "lumen/runtime/EventLoop.h"

#include <ev.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "lumen/runtime/Log.h"

namespace lm {

using namespace std::chrono_literals;

namespace {

/// How long a watch without progress is paused.
constexpr auto pause = 100ms;

/// How often each listening socket is dispatched between two other callbacks.
constexpr int maxAccepts = 16;

EventLoop* theLoop = nullptr;

}  // namespace

struct EventLoop::Libev {
  Libev() {
    ev_init(&limit, [](struct ev_loop*, ev_timer*, int) {});
  }
  Libev(const Libev&) = delete;
  Libev& operator=(const Libev&) = delete;
  ~Libev() { ev_loop_destroy(loop); }

  struct ev_loop* const loop = ev_loop_new(unsigned{EVBACKEND_EPOLL} | unsigned{EVFLAG_NOENV});
  ev_timer limit{};  // ends a wait
  ev_fork fork{};    // called before all descriptors are registered again
};

struct EventLoop::Watch {
  void* const owner;
  const SocketCallback callback;
  const bool accepts;
  bool stuck = false;       // its last callback returned false
  bool removed = false;     // it must not be called any more
  bool registered = false;  // with the kernel, or about to be
  ev_io io{};
};

EventLoop::EventLoop(const Clock& clock) : clock_(clock), libev_(std::make_unique<Libev>()) {
  if (theLoop) fatal("event loop: there is one already");
  if (!libev_->loop) fatal("event loop: ", strerror(errno));
  theLoop = this;
  ev_fork_init(&libev_->fork, [](struct ev_loop*, ev_fork*, int) {
    for (const auto& [fd, watch] : theLoop->watches_) theLoop->unchecked_.push_back(watch);
    theLoop->dropClosed();
  });
  ev_fork_start(libev_->loop, &libev_->fork);
}

EventLoop::~EventLoop() { theLoop = nullptr; }

void EventLoop::addSocket(int fd, void* owner, SocketCallback callback, unsigned flags) {
  if (fd < 0) return;
  removeSocket(fd);
  const bool accepts = (flags & watchAccept) == watchAccept;
  const auto watch = std::make_shared<Watch>(Watch{owner, callback, accepts});
  watches_[fd] = watch;
  const int events = ((flags & watchRead) ? EV_READ : 0) | ((flags & watchWrite) ? EV_WRITE : 0);
  const auto becameReady = [](struct ev_loop*, ev_io* io, int met) {
    const unsigned conditions =
        ((met & EV_READ) ? watchRead : 0) | ((met & EV_WRITE) ? watchWrite : 0);
    theLoop->ready_.push_back({theLoop->watches_.at(io->fd), conditions});
  };
  ev_io_init(&watch->io, becameReady, fd, events);
  start(watch);
  if ((flags & watchRead) && !accepts) started_.push_back(watch);
}

void EventLoop::removeSocket(int fd) {
  const auto found = watches_.find(fd);
  if (found == watches_.end()) return;
  const WatchPtr watch = found->second;
  watch->removed = true;
  stop(*watch);
  timers_.remove({watch.get(), &EventLoop::resume});
  watches_.erase(found);
}

void EventLoop::start(const WatchPtr& watch) {
  watch->registered = false;
  unchecked_.push_back(watch);
  if (watch->accepts) listeners_.push_back(watch);
  ev_io_start(libev_->loop, &watch->io);
}

void EventLoop::stop(Watch& watch) {
  ev_io_stop(libev_->loop, &watch.io);
  std::erase_if(listeners_, [&](const WatchPtr& listener) { return listener.get() == &watch; });
}

void EventLoop::resume(void* watch) {
  theLoop->start(theLoop->watches_.at(static_cast<Watch*>(watch)->io.fd));
}

void EventLoop::turn(std::optional<std::chrono::milliseconds> limit) {
  const Clock::Time now = clock_.now();
  const uint64_t added = timers_.added();
  wait(now, limit);
  dispatchReady();
  if (!started_.empty()) {
    pollStarted();
    dispatchReady();
  }
  while (const auto timer = timers_.takeDue(now, added)) {
    acceptWaiting();
    polled_ = false;
    const auto [owner, callback] = *timer;
    callback(owner);
  }
}

void EventLoop::wait(Clock::Time now, std::optional<std::chrono::milliseconds> limit) {
  if (const auto due = nextDue()) {
    const std::chrono::milliseconds left = std::max(*due, now) - now;
    limit = std::min(limit.value_or(left), left);
  }
  dropClosed();
  started_.clear();
  ready_.clear();
  ev_now_update(libev_->loop);
  // A time of 0 stops the timer of the last wait.
  libev_->limit.repeat = std::chrono::duration<double>(limit.value_or(0ms)).count();
  ev_timer_again(libev_->loop, &libev_->limit);
  ev_run(libev_->loop, limit == 0ms ? EVRUN_NOWAIT : EVRUN_ONCE);
  // libev calls back in the reverse of the kernel's order.
  std::ranges::reverse(ready_);
  std::stable_partition(ready_.begin(), ready_.end(),
                        [](const Ready& ready) { return ready.watch->accepts; });
  polled_ = true;
}

/// A client has usually sent its request when its connection is accepted: asking at once saves
/// registering the descriptor and waiting for it.
void EventLoop::pollStarted() {
  std::vector<WatchPtr> watches = listeners_;
  watches.insert(watches.end(), started_.begin(), started_.end());
  ready_ = pollNow(std::move(watches));
  polled_ = true;
}

void EventLoop::dispatchReady() {
  for (const Ready& ready : ready_) {
    if (!ready.watch->accepts) acceptWaiting();
    dispatch(ready);
  }
}

void EventLoop::dispatch(const Ready& ready) {
  Watch& watch = *ready.watch;
  if (watch.removed) return;
  polled_ = false;
  const bool progress = watch.callback(watch.owner, watch.io.fd, ready.flags);
  if (watch.removed) return;
  unchecked_.push_back(ready.watch);
  if (!progress && watch.stuck) {
    stop(watch);
    timers_.add({&watch, &EventLoop::resume}, clock_.now() + pause);
  }
  watch.stuck = !progress;
}

/// libev aborts when it registers a closed descriptor, and keeps reporting one that another process
/// holds open.
void EventLoop::dropClosed() {
  const std::vector<WatchPtr> watches = std::exchange(unchecked_, {});
  pollNow(watches);
  for (const WatchPtr& watch : watches) watch->registered = true;
}

/// Dispatches the listening sockets while clients wait.
void EventLoop::acceptWaiting() {
  for (int i = 0; i < maxAccepts && !polled_; ++i) {
    const std::vector<Ready> waiting = pollNow(listeners_);
    polled_ = waiting.empty();
    for (const Ready& ready : waiting) dispatch(ready);
  }
}

/// Those of `watches` that have something to read. Removes those whose descriptor was closed.
std::vector<EventLoop::Ready> EventLoop::pollNow(std::vector<WatchPtr> watches) {
  std::erase_if(watches, [](const WatchPtr& watch) { return watch->removed; });
  std::vector<pollfd> seen;
  seen.reserve(watches.size());
  for (const WatchPtr& watch : watches) seen.push_back({watch->io.fd, POLLIN, 0});
  // When it fails it leaves all revents 0.
  if (!seen.empty()) poll(seen.data(), seen.size(), 0);
  std::vector<Ready> ready;
  for (size_t i = 0; i < seen.size(); ++i) {
    if (seen[i].revents & POLLNVAL) {
      logLine("event loop: descriptor ", seen[i].fd, " was closed while watched");
      removeSocket(seen[i].fd);
    } else if (seen[i].revents != 0) {
      ready.push_back({watches[i], watchRead});
    }
  }
  // One that is not registered yet must still be open when it is.
  std::erase_if(unchecked_, [&](const WatchPtr& watch) {
    return watch->registered && std::ranges::find(watches, watch) != watches.end();
  });
  return ready;
}

const Clock& currentClock() {
  static const SystemClock system;
  return theLoop ? theLoop->clock() : system;
}

ThinRunner& getRunner() {
  if (!theLoop) fatal("event loop: there is none");
  return *theLoop;
}

}  // namespace lm
