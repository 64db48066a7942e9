#include <gtest/gtest.h>

#include "lumen/runtime/TimerQueue.h"

namespace lm {
namespace {

void callback(void*) {}
void otherCallback(void*) {}

// Also proves [timer-unit].
TEST(TimerQueue, GivesTimersInTheOrderInWhichTheyComeDue) {
  int a = 0;
  int b = 0;
  int c = 0;
  TimerQueue queue;
  queue.add({&a, callback}, 30);
  queue.add({&b, callback}, 10);
  queue.add({&c, callback}, 10);
  EXPECT_EQ(queue.nextDue(), 10U);
  EXPECT_FALSE(queue.takeDue(9, queue.added()));
  EXPECT_EQ(queue.takeDue(30, queue.added())->first, &b);
  EXPECT_EQ(queue.takeDue(30, queue.added())->first, &c);
  EXPECT_EQ(queue.takeDue(30, queue.added())->first, &a);
  EXPECT_FALSE(queue.takeDue(30, queue.added()));
  EXPECT_FALSE(queue.nextDue());
}

TEST(TimerQueue, KnowsATimerByOwnerAndCallback) {
  int a = 0;
  TimerQueue queue;
  queue.add({&a, callback}, 10);
  queue.add({&a, otherCallback}, 20);
  queue.add({&a, callback}, 30);
  EXPECT_EQ(queue.nextDue(), 20U) << "the first one was replaced";
  queue.remove({&a, otherCallback});
  EXPECT_EQ(queue.nextDue(), 30U);
  queue.remove({&a, otherCallback});
  queue.remove({&a, callback});
  EXPECT_FALSE(queue.nextDue());
}

TEST(TimerQueue, LeavesTimersThatWereAddedLater) {
  int a = 0;
  TimerQueue queue;
  const uint64_t before = queue.added();
  queue.add({&a, callback}, 10);
  EXPECT_FALSE(queue.takeDue(10, before));
  EXPECT_TRUE(queue.takeDue(10, queue.added()));
}

}  // namespace
}  // namespace lm
