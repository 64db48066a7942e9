#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "runtime/LoopTest.h"
#include "support/LogCapture.h"

namespace {

using namespace std::chrono_literals;

int polls = 0;  // of this program

}  // namespace

/// Takes the place of the C library's, to count. The label keeps it apart from the inline one of
/// headers that check sizes.
extern "C" int countingPoll(pollfd* descriptors, nfds_t count, int limit) __asm__("poll");

extern "C" int countingPoll(pollfd* descriptors, nfds_t count, int limit) {
  ++polls;
  const timespec time{limit / 1000, limit % 1000 * 1'000'000L};
  return static_cast<int>(
      syscall(SYS_ppoll, descriptors, count, limit < 0 ? nullptr : &time, nullptr, size_t{0}));
}

namespace lm {
namespace {

using test::SocketPair;
using test::TcpListener;

/// Clients that come one by one to a socket with the shortest queue.
class Listeners : public test::LoopTest {
 protected:
  void clientConnects() {
    clients_.push_back(listener_.connect());
    ASSERT_TRUE(test::waitFor(listener_.fd.get(), POLLIN));
  }
  void acceptOne(Probe& p) {
    Fd client(accept4(listener_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    p.progress = client.valid();
    if (client.valid()) accepted_.push_back(std::move(client));
  }
  Probe& acceptingWatch() {
    Probe& p = watch("listener", listener_.fd.get(), watchAccept);
    p.then = [this, &p] { acceptOne(p); };
    return p;
  }
  Probe& failingWatch() {
    Probe& p = watch("listener", listener_.fd.get(), watchAccept);
    p.progress = false;
    return p;
  }

  TcpListener listener_{32};
  std::vector<Fd> clients_;
  std::vector<Fd> accepted_;
  SocketPair a_{SOCK_STREAM};
  SocketPair b_{SOCK_STREAM};
};

// Promise [loop-listeners]: Listening sockets are called before all other watches.
TEST_F(Listeners, AreDispatchedFirst) {
  watch("a", a_.ours.get());
  acceptingWatch();
  test::writeText(a_.peer.get(), "x");
  clientConnects();
  turn();
  EXPECT_EQ(calls(), (Names{"listener", "a"}));
}

// Promise [loop-between]: Listening sockets are polled again between any two other callbacks, of
// watches and of timers.
TEST_F(Listeners, ArePolledBetweenAnyTwoOtherCallbacks) {
  acceptingWatch();
  for (SocketPair* pair : {&a_, &b_}) {
    watch("other", pair->ours.get()).then = [this] { clientConnects(); };
    test::writeText(pair->peer.get(), "x");
  }
  timer("timer", 0).then = [this] { clientConnects(); };
  timer("timer", 0);
  turn();
  EXPECT_EQ(calls(),
            (Names{"other", "listener", "other", "listener", "timer", "listener", "timer"}));
  EXPECT_EQ(accepted_.size(), 3U);
}

TEST_F(Listeners, AreDrainedBeforeAConnectionThatWasJustAcceptedIsServed) {
  Probe& p = acceptingWatch();
  p.then = [this, &p] {
    acceptOne(p);
    if (accepted_.size() > 1) return;
    test::writeText(a_.peer.get(), "x");
    watch("connection", a_.ours.get());
    for (int i = 0; i < 2; ++i) clientConnects();
  };
  clientConnects();
  turn();
  EXPECT_EQ(calls(), (Names{"listener", "listener", "listener", "connection"}));
}

// Promise [loop-accepts]: A listening socket whose callback accepts is called as often as clients
// wait, between two other callbacks at most 16 times, so that an endless stream of clients delays
// the others by a bounded time.
TEST_F(Listeners, AreNotSlowedWhileTheirCallbackAccepts) {
  acceptingWatch();
  for (int i = 0; i < 10; ++i) clientConnects();
  turns(10);
  EXPECT_EQ(accepted_.size(), 10U);
}

TEST_F(Listeners, AreDrainedBetweenAnyTwoOtherCallbacks) {
  acceptingWatch();
  for (SocketPair* pair : {&a_, &b_}) {
    watch("other", pair->ours.get());
    test::writeText(pair->peer.get(), "x");
  }
  for (int i = 0; i < 4; ++i) clientConnects();
  turn();
  EXPECT_EQ(calls(), (Names{"listener", "listener", "listener", "listener", "other", "other"}));
}

TEST_F(Listeners, DelayOthersByABoundedNumberOfClients) {
  acceptingWatch();
  watch("other", a_.ours.get());
  test::writeText(a_.peer.get(), "x");
  for (int i = 0; i < 18; ++i) clientConnects();
  turn();
  Names names(17, "listener");
  names.emplace_back("other");
  EXPECT_EQ(calls(), names);
  turn();
  EXPECT_EQ(calls(), (Names{"listener", "other"}));
}

TEST_F(Listeners, AreReportedAsReadable) {
  Probe& p = acceptingWatch();
  clientConnects();
  turn();
  EXPECT_EQ(p.flags, watchRead);
}

// Promise [loop-idle-listener]: A listening socket that stays readable although its callback
// accepted nothing is called at once the first time, then at most ten times a second.
TEST_F(Listeners, ThatAcceptNothingAreDispatchedTenTimesASecond) {
  failingWatch();
  clientConnects();
  turns(50);
  EXPECT_EQ(calls().size(), 2U) << "at once the first time that nothing was accepted";
  EXPECT_EQ(loop_.nextDue(), clock_.now() + 100ms);
  for (int i = 0; i < 10; ++i) {
    clock_.advance(100ms);
    turns(50);
  }
  EXPECT_EQ(calls().size(), 10U);
}

// Also proves [loop-idle-listener].
TEST_F(Listeners, ThatArePausedAreNotPolledBetweenOthers) {
  failingWatch();
  clientConnects();
  turns(2);
  calls();
  for (SocketPair* pair : {&a_, &b_}) {
    watch("other", pair->ours.get());
    test::writeText(pair->peer.get(), "x");
  }
  turn();
  EXPECT_EQ(calls(), (Names{"other", "other"}));
}

// Promise: Beside the wait a turn makes at most one system call itself, and one for each callback
// but the first if there are listening sockets.
TEST_F(Listeners, CostASystemCallForEachCallbackButTheFirst) {
  acceptingWatch();
  const auto pollsInATurn = [this] {
    turn();  // looks at the descriptors that were called in the one before
    const int before = polls;
    turn();
    return polls - before;
  };
  EXPECT_EQ(pollsInATurn(), 0);
  watch("a", a_.ours.get());
  test::writeText(a_.peer.get(), "x");
  EXPECT_EQ(pollsInATurn(), 1) << "whether it is still open";
  watch("b", b_.ours.get());
  test::writeText(b_.peer.get(), "x");
  EXPECT_EQ(pollsInATurn(), 2);
  removeSocket(listener_.fd.get());
  EXPECT_EQ(pollsInATurn(), 1);
}

TEST_F(Listeners, CostNoSystemCallBeforeTheFirstWatchThatWasStartedInATurn) {
  acceptingWatch();
  watch("a", a_.ours.get()).then = [this] { watch("b", b_.ours.get()); };
  test::writeText(a_.peer.get(), "x");
  test::writeText(b_.peer.get(), "x");
  const int before = polls;
  turn();
  EXPECT_EQ(calls(), (Names{"a", "b"}));
  EXPECT_EQ(polls - before, 2) << "whether they are open, and what was started";
}

// Promise: A listening socket that accepts again is called at full speed again.
TEST_F(Listeners, AreAtFullSpeedAgainOnceTheyAccept) {
  Probe& p = failingWatch();
  clientConnects();
  turns(5);
  calls();
  p.then = [this, &p] { acceptOne(p); };
  clock_.advance(100ms);
  turns(2);
  EXPECT_EQ(accepted_.size(), 1U);
  clientConnects();
  turn();
  clientConnects();
  turn();
  EXPECT_EQ(accepted_.size(), 3U);
}

// Also proves [loop-idle-listener].
TEST_F(Listeners, DoNotSpinWhenDescriptorsHaveRunOut) {
  acceptingWatch();
  clientConnects();
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const Fd free(dup(a_.ours.get()));
  const rlimit none{static_cast<rlim_t>(free.get()), usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  turns(50);
  EXPECT_EQ(calls().size(), 2U);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  clock_.advance(100ms);
  turns(2);
  EXPECT_EQ(accepted_.size(), 1U);
}

// Promise: A callback of a listening socket may end another one.
TEST_F(Listeners, ACallbackMayEndAnotherListener) {
  TcpListener other(16);
  const Fd client = other.connect();
  ASSERT_TRUE(test::waitFor(other.fd.get(), POLLIN));
  clientConnects();
  watch("listener", listener_.fd.get(), watchAccept).then = [&] { removeSocket(other.fd.get()); };
  watch("listener", other.fd.get(), watchAccept).then = [&] { removeSocket(listener_.fd.get()); };
  turn();
  EXPECT_EQ(calls().size(), 1U);
}

/// Watches whose peer has closed, and that their owner keeps.
class Peers : public test::LoopTest {
 protected:
  SocketPair pair_{SOCK_STREAM};
};

// Promise [loop-closed-peer]: A watch that its owner keeps although the peer has closed is called
// at once the first time, then at most ten times a second. Its callback reports that there was
// nothing to take: the loop does not guess.
TEST_F(Peers, ThatAreGoneDoNotKeepTheLoopBusy) {
  watch("a", pair_.ours.get()).progress = false;
  pair_.peer.reset();
  turns(50);
  EXPECT_EQ(calls().size(), 2U);
  for (int i = 0; i < 10; ++i) {
    clock_.advance(100ms);
    turns(50);
  }
  EXPECT_EQ(calls().size(), 10U);
}

// Promise: One call that took nothing does not slow a watch down.
TEST_F(Peers, AreDispatchedAtOnceWhileTheirOwnerMakesProgress) {
  Probe& p = watch("a", pair_.ours.get());
  p.then = [&p] { p.progress = !p.progress; };
  pair_.peer.reset();
  turns(50);
  EXPECT_EQ(calls().size(), 50U);
}

// Promise: A watch that is slowed may be removed or replaced.
TEST_F(Peers, ThatArePausedAreForgottenWithTheirWatch) {
  watch("a", pair_.ours.get()).progress = false;
  pair_.peer.reset();
  turns(5);
  removeSocket(pair_.ours.get());
  EXPECT_EQ(loop_.nextDue(), std::nullopt);
  clock_.advance(100ms);
  calls();
  turns(5);
  EXPECT_EQ(calls(), Names{});
}

TEST_F(Peers, AreForgottenWhenTheirWatchEndsItselfInsteadOfPausing) {
  Probe& p = watch("a", pair_.ours.get());
  p.progress = false;
  pair_.peer.reset();
  turn();
  p.then = [this] { removeSocket(pair_.ours.get()); };
  turn();
  EXPECT_EQ(loop_.nextDue(), std::nullopt);
}

TEST_F(Peers, AreNoLongerPausedOnceTheirWatchIsReplaced) {
  watch("a", pair_.ours.get()).progress = false;
  pair_.peer.reset();
  turns(5);
  calls();
  watch("b", pair_.ours.get());
  turns(5);
  EXPECT_EQ(calls(), Names(5, "b"));
}

// Also proves [loop-closed-peer].
TEST_F(Peers, OfAnOwnerThatReturnsNothingAreNotSlowed) {
  struct Silent {
    void ready(int) { ++calls; }
    int calls = 0;
  } silent;
  addSocket<&Silent::ready>(pair_.ours.get(), silent, watchRead);
  pair_.peer.reset();
  turns(20);
  EXPECT_EQ(silent.calls, 20);
}

// Promise: A connection that is accepted and served in one turn costs one system call beside the
// wait.
TEST_F(Listeners, AreNotLookedAtAgainAfterTheLastPoll) {
  Probe& p = acceptingWatch();
  p.then = [this, &p] {
    acceptOne(p);
    watch("connection", a_.ours.get()).then = [this] { removeSocket(a_.ours.get()); };
  };
  test::writeText(a_.peer.get(), "x");
  turn();
  const int before = polls;
  clientConnects();
  turn();
  turn();
  EXPECT_EQ(calls(), (Names{"listener", "connection"}));
  EXPECT_EQ(polls - before, 1 + 1) << "that of clientConnects and one more";
}

class ClosedDescriptors : public test::LoopTest {
 protected:
  /// Whether a turn waits until its limit, which it does not when the kernel reports something.
  bool isQuiet() {
    loop_.turn(0ms);
    const auto start = std::chrono::steady_clock::now();
    loop_.turn(30ms);
    return std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(25);
  }

  SocketPair pair_{SOCK_STREAM};
};

// Promise: A descriptor that was closed while watched costs nothing and is not called, also if
// another process holds it open.
TEST_F(ClosedDescriptors, ThatAreStillWatchedAreQuiet) {
  watch("closed", pair_.ours.get());
  test::writeText(pair_.peer.get(), "x");
  pair_.ours.reset();
  EXPECT_TRUE(isQuiet());
  EXPECT_EQ(calls(), Names{});
}

// Promise [loop-closed]: A descriptor that was closed while watched is reported once: `event loop:
// descriptor 7 was closed while watched`.
TEST_F(ClosedDescriptors, AreLoggedOnce) {
  const Fd elsewhere(dup(pair_.ours.get()));
  const std::string number = std::to_string(pair_.ours.get());
  watch("closed", pair_.ours.get());
  turn();
  test::writeText(pair_.peer.get(), "x");
  const test::LogCapture log;
  pair_.ours.reset();
  turns(5);
  EXPECT_EQ(log.text(), "event loop: descriptor " + number + " was closed while watched\n");
}

TEST_F(ClosedDescriptors, WhoseWatchEndedBeforeAreNotReported) {
  watch("a", pair_.ours.get()).then = [this] {
    removeSocket(pair_.ours.get());
    pair_.ours.reset();
  };
  test::writeText(pair_.peer.get(), "x");
  const test::LogCapture log;
  turns(3);
  EXPECT_EQ(calls(), Names{"a"});
  EXPECT_EQ(log.text(), "");
}

TEST_F(ClosedDescriptors, ThatListenedAreNotAccepted) {
  TcpListener listener(4);
  const std::string number = std::to_string(listener.fd.get());
  watch("listener", listener.fd.get(), watchAccept);
  watch("a", pair_.ours.get()).then = [&] { listener.fd.reset(); };
  timer("timer", 0);
  test::writeText(pair_.peer.get(), "x");
  const test::LogCapture log;
  turn();
  EXPECT_EQ(calls(), (Names{"a", "timer"}));
  EXPECT_EQ(log.text(), "event loop: descriptor " + number + " was closed while watched\n");
}

TEST_F(ClosedDescriptors, ThatWereOpenWhenTheyWereReadFromAreNotRegistered) {
  SocketPair other(SOCK_STREAM);
  const std::string number = std::to_string(other.ours.get());
  watch("a", pair_.ours.get()).then = [&] {
    watch("started", other.ours.get());
    watch("later", pair_.ours.get()).then = [&] { other.ours.reset(); };
  };
  test::writeText(pair_.peer.get(), "x");
  const test::LogCapture log;
  turn();
  turn();
  EXPECT_EQ(calls(), (Names{"a", "later", "later"}));
  EXPECT_EQ(log.text(), "event loop: descriptor " + number + " was closed while watched\n");
}

// Promise: The watch of a closed descriptor may still be removed, and its number watched again.
TEST_F(ClosedDescriptors, MayBeRemovedAfterwards) {
  const int number = pair_.ours.get();
  watch("closed", number);
  pair_.ours.reset();
  removeSocket(number);
  EXPECT_TRUE(isQuiet());
}

TEST_F(ClosedDescriptors, GiveTheirNumberToOthers) {
  const int number = pair_.ours.get();
  watch("closed", number);
  turn();
  pair_.ours.reset();
  SocketPair other(SOCK_STREAM);
  ASSERT_EQ(dup2(other.ours.get(), number), number);
  const Fd sameNumber(number);
  watch("other", number);
  EXPECT_TRUE(isQuiet());
  test::writeText(other.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"other"});
}

TEST_F(ClosedDescriptors, ThatAnotherProcessHoldsOpenDoNotKeepTheLoopBusy) {
  const Fd elsewhere(dup(pair_.ours.get()));  // as a child process would
  watch("closed", pair_.ours.get());
  turn();
  test::writeText(pair_.peer.get(), "x");
  pair_.ours.reset();
  for (int i = 0; i < 10; ++i) {
    turns(10);
    clock_.advance(100ms);
  }
  EXPECT_LE(calls().size(), 3U);
  EXPECT_TRUE(isQuiet());
}

TEST_F(ClosedDescriptors, ThatAnotherProcessHoldsOpenAreQuietOnceRemoved) {
  const Fd elsewhere(dup(pair_.ours.get()));
  const int number = pair_.ours.get();
  watch("closed", number);
  turn();
  test::writeText(pair_.peer.get(), "x");
  pair_.ours.reset();
  removeSocket(number);
  turns(3);
  EXPECT_EQ(calls(), Names{});
  EXPECT_TRUE(isQuiet());
}

TEST_F(ClosedDescriptors, OfSeveralOwnersDoNoHarmTogether) {
  SocketPair silent(SOCK_STREAM);
  SocketPair open(SOCK_STREAM);
  const Fd elsewhere(dup(pair_.ours.get()));
  watch("closed", pair_.ours.get());
  watch("silent", silent.ours.get());
  watch("open", open.ours.get());
  turn();
  test::writeText(pair_.peer.get(), "x");
  silent.ours.reset();
  const int number = pair_.ours.get();
  pair_.ours.reset();
  removeSocket(number);
  turns(3);
  EXPECT_TRUE(isQuiet());
  test::writeText(open.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"open"});
}

// Promise: Watching a descriptor that is closed does nothing.
TEST_F(ClosedDescriptors, AreRefusedByANewWatch) {
  const int number = pair_.ours.get();
  pair_.ours.reset();
  watch("closed", number);
  EXPECT_TRUE(isQuiet());
  EXPECT_EQ(calls(), Names{});
}

}  // namespace
}  // namespace lm
