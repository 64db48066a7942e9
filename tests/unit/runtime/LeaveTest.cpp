#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "platform/Handler.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/TestPlatform.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t registerServices = 0x10;
constexpr uint32_t unregisterServices = 0x13;

/// A program that leaves when it is not needed, as a switched-off daemon does.
class Leave : public testing::Test {
 protected:
  class Daemon : public Handler {
   public:
    message cmdUnknown(const message&, uint32_t command) override {
      commands.push_back(command);
      if (then) then();
      return {};
    }
    std::vector<uint32_t> commands;
    std::function<void()> then;
  };

  Leave() {
    looper_.addHandler(0, daemon_);
    platform_.forgetSent();
  }

  /// A request comes in after the program has asked to be unregistered.
  void requestCrossesTheUnregistration() {
    platform_.onRequest({0}, unregisterServices, [this](const message&) {
      serial_ = platform_.postRequest(0, 77);
      return message();
    });
  }
  std::vector<uint32_t> sentCommands() {
    std::vector<uint32_t> commands;
    for (const message& m : platform_.sent()) commands.push_back(m.get_u32(key::command));
    return commands;
  }

  using Commands = std::vector<uint32_t>;

  test::TestPlatform platform_;
  Looper looper_{platform_.makeRuntime()};
  Daemon daemon_;
  uint32_t serial_ = 0;
};

// Promise [leave-delay]: A program leaves its loop when the leave delay, in milliseconds, has
// passed, and unregisters before.
TEST_F(Leave, ComesAfterItsDelayAndUnregisters) {
  looper_.setupLeave(1000);
  platform_.advance(990ms);
  EXPECT_FALSE(platform_.stopped());
  EXPECT_EQ(sentCommands(), Commands{});
  platform_.advance(10ms);
  EXPECT_TRUE(platform_.stopped());
  ASSERT_EQ(sentCommands(), Commands{unregisterServices});
  EXPECT_EQ(test::describe(test::contentOf(platform_.sent()[0])), "{u32[] 0x1=[40]}");
  looper_.run();
}

// Also proves [leave-off].
TEST_F(Leave, IsCalledOffByADelayOfZero) {
  looper_.setupLeave(1000);
  platform_.advance(990ms);
  looper_.setupLeave(0);
  platform_.advance(1000s);
  EXPECT_FALSE(platform_.stopped());
  EXPECT_EQ(sentCommands(), Commands{});
}

// Promise [leave-off]: Another leave delay postpones the leave, a delay of 0 cancels it.
TEST_F(Leave, IsPostponedByANewDelay) {
  looper_.setupLeave(1000);
  platform_.advance(990ms);
  looper_.setupLeave(1000);
  platform_.advance(990ms);
  EXPECT_FALSE(platform_.stopped());
  platform_.advance(10ms);
  EXPECT_TRUE(platform_.stopped());
}

// Promise: A request that arrives before the answer to the unregistration is still answered by the
// program that leaves.
TEST_F(Leave, AnswersWhatArrivedBeforeTheUnregistrationDid) {
  requestCrossesTheUnregistration();
  looper_.setupLeave(1000);
  platform_.advance(1s);
  EXPECT_TRUE(platform_.stopped());
  EXPECT_EQ(daemon_.commands, Commands{77});
  EXPECT_TRUE(platform_.replyTo(serial_));
  EXPECT_EQ(sentCommands(), Commands{unregisterServices});
}

// Promise: When a request that arrives before the answer to the unregistration cancels the leave,
// or delays it, the program registers again and stays.
TEST_F(Leave, IsUndoneByRegisteringAgainWhenSuchARequestCallsItOff) {
  requestCrossesTheUnregistration();
  daemon_.then = [this] { looper_.setupLeave(0); };
  looper_.setupLeave(1000);
  platform_.advance(1000s);
  EXPECT_FALSE(platform_.stopped());
  EXPECT_EQ(sentCommands(), (Commands{unregisterServices, registerServices}));
  EXPECT_TRUE(platform_.replyTo(serial_));
}

TEST_F(Leave, ThatSuchARequestPostponesComesLater) {
  requestCrossesTheUnregistration();
  daemon_.then = [this] { looper_.setupLeave(500); };
  looper_.setupLeave(1000);
  platform_.advance(1s);
  EXPECT_FALSE(platform_.stopped());
  daemon_.then = nullptr;
  platform_.advance(500ms);
  EXPECT_TRUE(platform_.stopped());
  EXPECT_EQ(sentCommands(), (Commands{unregisterServices, registerServices, unregisterServices}));
}

TEST_F(Leave, LeavesRequestsThatArriveAfterTheAnswer) {
  platform_.onRequest({0}, unregisterServices, [this](const message&) {
    serial_ = platform_.postRequest(0, 77);
    return message();
  });
  looper_.setupLeave(1000);
  platform_.advance(990ms);
  daemon_.then = [this] { platform_.postRequest(0, 78); };
  platform_.advance(10ms);
  EXPECT_TRUE(platform_.stopped());
  EXPECT_EQ(daemon_.commands, Commands{77});
}

// Promise: A program leaves even if the unregistration is not answered, which is logged: `platform:
// service 40: no answer in time`.
TEST_F(Leave, HappensEvenIfThePlatformDoesNotAnswer) {
  platform_.ignore({0}, unregisterServices);
  looper_.setupLeave(1000);
  const test::LogCapture log;
  platform_.advance(1s);
  EXPECT_EQ(log.text(), "platform: service 40: no answer in time\n");
  EXPECT_TRUE(platform_.stopped());
}

// Promise: Exchanges still work after the loop.
TEST_F(Leave, LetsExchangesContinueAfterwards) {
  looper_.setupLeave(1000);
  platform_.advance(1s);
  looper_.run();
  platform_.answer({20, 5}, cmd::removeObject, message());
  message request;
  request.insert_u32_array(key::destination, {20, 5});
  EXPECT_FALSE(isError(looper_.exchangeCmd(request, cmd::removeObject, 6000)));
}

// Also proves [leave-delay].
TEST(LeaveWithoutHandlers, SendsNothing) {
  test::TestPlatform platform;
  Looper looper(platform.makeRuntime());
  looper.setupLeave(1);
  platform.advance(10ms);
  EXPECT_TRUE(platform.stopped());
  EXPECT_TRUE(platform.sent().empty());
}

}  // namespace
}  // namespace lm
