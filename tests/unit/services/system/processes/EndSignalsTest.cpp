#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/processes/EndSignals.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class EndSignalsTest : public testing::Test {
 public:
  void asked() { ++times_; }
  ~EndSignalsTest() override { sigprocmask(SIG_SETMASK, &before_, nullptr); }

 protected:
  EndSignalsTest() { sigprocmask(SIG_SETMASK, nullptr, &before_); }

  sigset_t before_ = {};
  int times_ = 0;
  lm::SystemClock clock_;
  lm::EventLoop loop_{clock_};
};

// Also proves [lumend-end].
TEST_F(EndSignalsTest, AreEventsOfTheLoop) {
  EndSignals signals;
  raise(SIGTERM);  // before anybody watches
  signals.watch<&EndSignalsTest::asked>(*this);
  loop_.turn(1s);
  EXPECT_EQ(times_, 1);
  raise(SIGINT);
  loop_.turn(1s);
  EXPECT_EQ(times_, 2);
  loop_.turn(0ms);
  EXPECT_EQ(times_, 2);
}

TEST_F(EndSignalsTest, LeaveOutABrokenPipe) {
  EndSignals signals;
  raise(SIGPIPE);
}

}  // namespace
}  // namespace lumen
