#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "lumen/runtime/EventLoop.h"
#include "platform/Timer.h"
#include "platform/Watch.h"
#include "runtime/LoopTest.h"
#include "support/Descriptors.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

using test::ManualClock;
using test::SocketPair;

class Timers : public test::LoopTest {};

// Promise [timer-unit]: A timer is called once, after its delay in hundredths of a second, in the
// order in which timers come due.
TEST_F(Timers, FireOnceAtTheirTimeInOrder) {
  timer("late", 30);
  timer("early", 10);
  timer("early too", 10);
  clock_.advance(99ms);
  turn();
  EXPECT_EQ(calls(), Names{});
  clock_.advance(1ms);
  turn();
  EXPECT_EQ(calls(), (Names{"early", "early too"}));
  clock_.advance(100s);
  turns(2);
  EXPECT_EQ(calls(), Names{"late"});
}

// Promise: Starting a pending timer replaces its delay.
TEST_F(Timers, AddingAPendingOneRestartsItsDelay) {
  Probe& p = timer("t", 10);
  clock_.advance(90ms);
  startTimer(p, 10);
  clock_.advance(90ms);
  turn();
  EXPECT_EQ(calls(), Names{});
  clock_.advance(10ms);
  turn();
  EXPECT_EQ(calls(), Names{"t"});
}

// Promise [timer-longest]: The longest delay, 4294967295 hundredths, does not wrap.
TEST_F(Timers, TheLongestDelayDoesNotWrap) {
  timer("t", 0xFFFFFFFF);
  clock_.advance(lumen::Centiseconds::max() - 1ms);
  turn();
  EXPECT_EQ(calls(), Names{});
  clock_.advance(1ms);
  turn();
  EXPECT_EQ(calls(), Names{"t"});
}

// Promise: A timer that a callback starts without delay waits for the next turn, so that
// descriptors are looked at between.
TEST_F(Timers, OneThatIsStartedByACallbackWaitsForTheNextTurn) {
  Probe& p = timer("t", 0);
  p.then = [&p] { startTimer(p, 0); };
  turn();
  EXPECT_EQ(calls(), Names{"t"});
  turn();
  EXPECT_EQ(calls(), Names{"t"});
}

TEST_F(Timers, OneThatIsStartedByAWatchWaitsForTheNextTurn) {
  const SocketPair pair(SOCK_STREAM);
  watch("a", pair.ours.get()).then = [&] {
    test::readAvailable(pair.ours.get());
    timer("t", 0);
  };
  test::writeText(pair.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"a"});
  turn();
  EXPECT_EQ(calls(), Names{"t"});
}

TEST_F(Timers, EndAWaitThatMayTakeLonger) {
  timer("t", 1);
  const auto start = std::chrono::steady_clock::now();
  loop_.turn(10s);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

// Promise [timer-look]: A timer that falls due while callbacks run waits until descriptors were
// looked at once more, so that a limit does not end what has arrived in time.
TEST_F(Timers, ThatFallDueWhileCallbacksRunWaitUntilDescriptorsArePolled) {
  const SocketPair quick(SOCK_STREAM);
  const SocketPair slow(SOCK_STREAM);
  Probe& limit = timer("limit", 1000);
  watch("slow", slow.ours.get()).then = [&] {
    test::readAvailable(slow.ours.get());
    clock_.advance(10s);
    test::writeText(quick.peer.get(), "request");
  };
  watch("quick", quick.ours.get()).then = [&] {
    test::readAvailable(quick.ours.get());
    stopTimer(limit);
  };
  test::writeText(slow.peer.get(), "x");
  turns(3);
  EXPECT_EQ(calls(), (Names{"slow", "quick"})) << "the request came in time";
}

TEST_F(Timers, ThatFallDueWhileTimersRunWaitUntilDescriptorsArePolled) {
  const SocketPair quick(SOCK_STREAM);
  timer("slow", 0).then = [&] {
    clock_.advance(10s);
    test::writeText(quick.peer.get(), "request");
  };
  timer("limit", 1000);
  watch("quick", quick.ours.get()).then = [&] { test::readAvailable(quick.ours.get()); };
  turns(3);
  EXPECT_EQ(calls(), (Names{"slow", "quick", "limit"}));
}

/// Time passes when it is read for the second time, as for a process that was stopped.
struct StoppedClock : ManualClock {
  [[nodiscard]] Time now() const override {
    if (++reads == 2 && then) then();
    return ManualClock::now();
  }
  mutable int reads = 0;
  std::function<void()> then;
};

// Promise: The same holds when the process was stopped or the machine suspended.
TEST(StoppedProcess, PollsDescriptorsBeforeTheTimersThatFellDueMeanwhile) {
  StoppedClock clock;
  EventLoop loop(clock);
  const SocketPair pair(SOCK_STREAM);
  struct Owner {
    void ready(int) { timer.stop(); }
    void due() { late = true; }
    Timer timer;
    bool late = false;
  } owner;
  Watch watch;
  watch.start<&Owner::ready>(pair.ours.get(), owner, watchRead);
  owner.timer.start<&Owner::due>(owner, 1000);
  clock.reads = 0;
  clock.then = [&] {
    test::writeText(pair.peer.get(), "x");
    clock.advance(10s);
  };
  loop.turn(0ms);
  loop.turn(0ms);
  EXPECT_FALSE(owner.timer.pending());
  EXPECT_FALSE(owner.late);
}

struct Owner {
  void due() {
    ++*fired;
    if (victim) victim->reset();
  }

  int* fired = nullptr;
  std::unique_ptr<Owner>* victim = nullptr;
  Timer timer;
};

TEST_F(Timers, ACallbackMayDestroyItsOwnerAndOthersThatAreDue) {
  int fired = 0;
  auto first = std::make_unique<Owner>();
  auto second = std::make_unique<Owner>();
  auto third = std::make_unique<Owner>();
  first->fired = second->fired = third->fired = &fired;
  first->victim = &second;
  third->victim = &third;
  first->timer.start<&Owner::due>(*first, 1);
  second->timer.start<&Owner::due>(*second, 1);
  third->timer.start<&Owner::due>(*third, 1);
  clock_.advance(10ms);
  turn();
  EXPECT_EQ(fired, 2);
  EXPECT_FALSE(second);
  EXPECT_FALSE(third);
}

// Promise [timer-cost]: Ten thousand timers cost no more each than a hundred.
TEST_F(Timers, TenThousandCostNoMoreEachThanAHundred) {
  std::vector<Owner> few(100);
  std::vector<Owner> many(10'000);
  const auto cost = [](std::vector<Owner>& owners) {
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 3; ++round) {
      for (Owner& owner : owners) owner.timer.start<&Owner::due>(owner, 100);
    }
    for (Owner& owner : owners) owner.timer.stop();
    return (std::chrono::steady_clock::now() - start) / static_cast<int>(owners.size());
  };
  const auto small = cost(few);
  EXPECT_LT(cost(many), 20 * small + std::chrono::microseconds(20));
}

TEST_F(Timers, AWaitEndsWhenTheNextOneIsDue) {
  timer("t", 3);
  const auto start = std::chrono::steady_clock::now();
  loop_.turn(std::nullopt);  // the clock that the test moves stands still meanwhile
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
  EXPECT_EQ(loop_.nextDue(), clock_.now() + 30ms);
  clock_.advance(30ms);
  turn();
  EXPECT_EQ(calls(), Names{"t"});
}

TEST(LoopsEnd, LeavesNoDescriptorOpen) {
  const ManualClock clock;
  const size_t before = test::openDescriptors();
  { const EventLoop loop(clock); }
  EXPECT_EQ(test::openDescriptors(), before);
}

class Watches : public test::LoopTest {
 protected:
  SocketPair a_{SOCK_STREAM};
  SocketPair b_{SOCK_STREAM};
};

// Promise: Every ready watch is called once a turn, as long as its descriptor is ready.
TEST_F(Watches, CallBackOnceATurnAsLongAsTheDescriptorIsReady) {
  watch("a", a_.ours.get());
  turn();
  EXPECT_EQ(calls(), Names{});
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"a"});
  turn();
  EXPECT_EQ(calls(), Names{"a"});
  test::readAvailable(a_.ours.get());
  turn();
  EXPECT_EQ(calls(), Names{});
}

// Promise: A watch that a callback starts is called in the same turn if there is something to read,
// once and before the timers.
TEST_F(Watches, StartedInATurnAreDispatchedInItWhenThereIsSomethingToRead) {
  watch("a", a_.ours.get()).then = [this] {
    test::readAvailable(a_.ours.get());
    watch("b", b_.ours.get());
    timer("timer", 0);
  };
  timer("due", 0);
  test::writeText(a_.peer.get(), "x");
  test::writeText(b_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), (Names{"a", "b", "due"}));
  turn();
  EXPECT_EQ(calls(), (Names{"b", "timer"}));
}

TEST_F(Watches, StartedInATurnWaitForTheNextWhenThereIsNothingToRead) {
  watch("a", a_.ours.get()).then = [this] { watch("b", b_.ours.get(), watchRead | watchWrite); };
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"a"});
}

// Promise: Watches are called in the order in which their descriptors became ready.
TEST_F(Watches, CallBackInTheOrderInWhichTheirDescriptorsBecameReady) {
  std::vector<std::unique_ptr<SocketPair>> pairs;
  Names names;
  for (int i = 0; i < 8; ++i) {
    pairs.push_back(std::make_unique<SocketPair>(SOCK_STREAM));
    watch(std::to_string(i), pairs.back()->ours.get());
  }
  turn();
  for (const int i : {3, 0, 7, 1, 6, 2, 5, 4}) {
    test::writeText(pairs[static_cast<size_t>(i)]->peer.get(), "x");
    names.push_back(std::to_string(i));
  }
  turn();
  EXPECT_EQ(calls(), names);
}

// Promise: The callback of a watch gets those of its conditions that are met.
TEST_F(Watches, ReportWhichConditionIsMet) {
  Probe& p = watch("a", a_.ours.get(), watchRead | watchWrite);
  turn();
  EXPECT_EQ(p.flags, watchWrite);
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(p.flags, watchRead | watchWrite);
}

TEST_F(Watches, OnlyTheirOwnConditionsCount) {
  watch("a", a_.ours.get(), watchRead);
  turn();
  EXPECT_EQ(calls(), Names{});
}

TEST_F(Watches, ForWritingAreNotCalledForWhatCanBeRead) {
  const auto fill = [](int fd) {
    const std::string filler(1 << 20, 'x');
    while (send(fd, filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
    }
  };
  for (SocketPair* pair : {&a_, &b_}) {
    fill(pair->ours.get());
    test::writeText(pair->peer.get(), "x");
  }
  const SocketPair starter(SOCK_STREAM);
  test::writeText(starter.peer.get(), "x");
  watch("a", a_.ours.get(), watchWrite);
  watch("starter", starter.ours.get()).then = [this] { watch("b", b_.ours.get(), watchWrite); };
  turn();
  EXPECT_EQ(calls(), Names{"starter"});
}

// Promise: A watch of descriptor -1 is ignored.
TEST_F(Watches, ADescriptorOfMinusOneIsIgnored) {
  watch("none", -1);
  removeSocket(-1);
  turn();
  EXPECT_EQ(calls(), Names{});
}

TEST_F(Watches, DescriptorZeroIsLikeAnyOther) {
  const Fd input(dup(STDIN_FILENO));
  ASSERT_EQ(dup2(a_.ours.get(), STDIN_FILENO), STDIN_FILENO);
  watch("zero", STDIN_FILENO);
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"zero"});
  removeSocket(STDIN_FILENO);
  dup2(input.get(), STDIN_FILENO);
}

// Promise: A second watch of a descriptor replaces the first.
TEST_F(Watches, ANewOneReplacesTheOldOne) {
  watch("old", a_.ours.get());
  watch("new", a_.ours.get());
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), Names{"new"});
}

// Promise: A watch that was removed is not called, also if its descriptor was found ready in the
// same turn.
TEST_F(Watches, ARemovedOneIsNotCalledEvenIfItWasReadyInThisTurn) {
  Probe& a = watch("a", a_.ours.get());
  Probe& b = watch("b", b_.ours.get());
  a.then = [this] { removeSocket(b_.ours.get()); };
  b.then = [this] { removeSocket(a_.ours.get()); };
  test::writeText(a_.peer.get(), "x");
  test::writeText(b_.peer.get(), "x");
  turns(3);
  const Names names = calls();
  EXPECT_EQ(names.size(), 3U);
  EXPECT_EQ(Names(3, names.front()), names);
}

// Promise: A descriptor number that is used again within a turn is not taken for the old one.
TEST_F(Watches, ADescriptorNumberThatIsUsedAgainInTheSameTurnIsNotTakenForTheOldOne) {
  std::optional<SocketPair> fresh;
  const auto reuse = [&](SocketPair& other) {
    return [this, &other, &fresh] {
      const int number = other.ours.get();
      removeSocket(number);
      other.ours.reset();
      fresh.emplace(SOCK_STREAM);
      if (fresh->ours.get() != number) {
        ASSERT_EQ(dup2(fresh->ours.get(), number), number);
        fresh->ours.reset(number);
      }
      watch("fresh", number);
    };
  };
  watch("a", a_.ours.get()).then = reuse(b_);
  watch("b", b_.ours.get()).then = reuse(a_);
  test::writeText(a_.peer.get(), "x");
  test::writeText(b_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls().size(), 1U) << "the fresh one has nothing to read";
  test::writeText(fresh->peer.get(), "x");
  turn();
  const Names names = calls();
  EXPECT_NE(std::find(names.begin(), names.end(), "fresh"), names.end());
}

// Promise: A callback may destroy its own watch, timer and owner, and others'.
TEST_F(Watches, ACallbackMayDestroyItsOwner) {
  struct Connection {
    void ready(int) {
      ++*calls;
      self->reset();
    }
    int* calls;
    std::unique_ptr<Connection>* self;
    SocketPair pair{SOCK_STREAM};
    Watch watch;
  };
  int calls = 0;
  auto connection = std::make_unique<Connection>();
  connection->calls = &calls;
  connection->self = &connection;
  connection->watch.start<&Connection::ready>(connection->pair.ours.get(), *connection, watchRead);
  test::writeText(connection->pair.peer.get(), "x");
  turns(2);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(connection);
}

// Promise: Timers that are due are called after the watches of a turn.
TEST_F(Watches, ATurnEndsWithTheTimersThatAreDue) {
  timer("timer", 0);
  watch("a", a_.ours.get());
  test::writeText(a_.peer.get(), "x");
  turn();
  EXPECT_EQ(calls(), (Names{"a", "timer"}));
}

// Promise: A wait ends when a descriptor is ready or the next timer is due.
TEST_F(Watches, EndTheirWaitWhenTheDescriptorIsReady) {
  watch("a", a_.ours.get());
  test::writeText(a_.peer.get(), "x");
  loop_.turn(std::nullopt);
  EXPECT_EQ(calls(), Names{"a"});
}

}  // namespace
}  // namespace lm
