#include <gtest/gtest.h>

#include <chrono>

#include "lumen/runtime/TimerQueue.h"

namespace lm {
namespace {

void callback(void*) {}
void otherCallback(void*) {}

Clock::Time at(int milliseconds) { return Clock::Time(std::chrono::milliseconds(milliseconds)); }

// Also proves [timer-unit].
TEST(TimerQueue, GivesTimersInTheOrderInWhichTheyComeDue) {
  int a = 0;
  int b = 0;
  int c = 0;
  TimerQueue queue;
  queue.add({&a, callback}, at(30));
  queue.add({&b, callback}, at(10));
  queue.add({&c, callback}, at(10));
  EXPECT_EQ(queue.nextDue(), at(10));
  EXPECT_FALSE(queue.takeDue(at(9), queue.added()));
  EXPECT_EQ(queue.takeDue(at(30), queue.added())->first, &b);
  EXPECT_EQ(queue.takeDue(at(30), queue.added())->first, &c);
  EXPECT_EQ(queue.takeDue(at(30), queue.added())->first, &a);
  EXPECT_FALSE(queue.takeDue(at(30), queue.added()));
  EXPECT_FALSE(queue.nextDue());
}

TEST(TimerQueue, IdentifiesATimerByOwnerAndCallback) {
  int a = 0;
  TimerQueue queue;
  queue.add({&a, callback}, at(10));
  queue.add({&a, otherCallback}, at(20));
  queue.add({&a, callback}, at(30));
  EXPECT_EQ(queue.nextDue(), at(20)) << "the first one was replaced";
  queue.remove({&a, otherCallback});
  EXPECT_EQ(queue.nextDue(), at(30));
  queue.remove({&a, otherCallback});
  queue.remove({&a, callback});
  EXPECT_FALSE(queue.nextDue());
}

TEST(TimerQueue, LeavesTimersThatWereAddedLater) {
  int a = 0;
  TimerQueue queue;
  const uint64_t before = queue.added();
  queue.add({&a, callback}, at(10));
  EXPECT_FALSE(queue.takeDue(at(10), before));
  EXPECT_TRUE(queue.takeDue(at(10), queue.added()));
}

}  // namespace
}  // namespace lm
