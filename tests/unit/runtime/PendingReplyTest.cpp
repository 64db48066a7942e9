#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/PendingReply.h"
#include "platform/Handler.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/Describe.h"
#include "support/TestPlatform.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t wait = 7;
constexpr uint32_t answerAtOnce = 8;

message number(uint32_t value) {
  message m;
  m.insert_u32(1, value);
  return m;
}

/// Delays its answers on request.
class Service : public Handler {
 public:
  message cmdUnknown(const message&, uint32_t command) override {
    if (command == wait) waiting.push_back(PendingReply::take());
    return number(command);
  }

  std::vector<PendingReply> waiting;
};

class PendingReplyTest : public testing::Test {
 protected:
  PendingReplyTest() {
    service_.emplace();
    looper_.addHandler(0, *service_);
  }

  /// What the requester has received.
  std::string answerTo(uint32_t serial) {
    std::optional<message> reply = platform_.replyTo(serial);
    if (!reply) return "none";
    EXPECT_EQ(reply->get_u32(key::serial), serial);
    return isError(*reply) ? getError(*reply) : test::describe(test::contentOf(*reply));
  }
  uint32_t ask(uint32_t command) {
    const uint32_t serial = platform_.postRequest(0, command);
    platform_.turn();
    return serial;
  }

  test::TestPlatform platform_;
  Looper looper_{platform_.makeRuntime()};
  std::optional<Service> service_;
};

// Promise [answer-later]: A handler may answer a request later, once, in any order.
TEST_F(PendingReplyTest, GoesOutWhenItIsSent) {
  const uint32_t asked = ask(wait);
  platform_.advance(10s);
  EXPECT_EQ(answerTo(asked), "none");
  service_->waiting[0].send(number(5));
  EXPECT_EQ(answerTo(asked), "{u32 0x1=5}");
}

// Also proves [answer-later].
TEST_F(PendingReplyTest, LeavesOtherRequestsAlone) {
  const uint32_t first = ask(wait);
  const uint32_t second = ask(wait);
  const uint32_t third = ask(answerAtOnce);
  EXPECT_EQ(answerTo(third), "{u32 0x1=8}");
  service_->waiting[1].send(number(2));
  EXPECT_EQ(answerTo(second), "{u32 0x1=2}");
  EXPECT_EQ(answerTo(first), "none");
  service_->waiting[0].send(number(1));
  EXPECT_EQ(answerTo(first), "{u32 0x1=1}");
}

// Promise: A delayed answer that is never sent becomes the error `service unavailable`, also when
// its handler or its program ends.
TEST_F(PendingReplyTest, IsAnErrorWhenNothingWasSent) {
  const uint32_t asked = ask(wait);
  service_->waiting.clear();
  EXPECT_EQ(answerTo(asked), "service unavailable");
}

TEST_F(PendingReplyTest, IsAnErrorWhenTheHandlerGoes) {
  const uint32_t asked = ask(wait);
  service_.reset();
  EXPECT_EQ(answerTo(asked), "service unavailable");
}

// Also proves [answer-later].
TEST_F(PendingReplyTest, GoesOutOnce) {
  const uint32_t asked = ask(wait);
  service_->waiting[0].send(number(5));
  service_->waiting[0].send(number(6));
  service_->waiting.clear();
  EXPECT_EQ(answerTo(asked), "{u32 0x1=5}");
}

// Also proves [answer-later].
TEST_F(PendingReplyTest, MovesFromHolderToHolder) {
  const uint32_t first = ask(wait);
  const uint32_t second = ask(wait);
  PendingReply held = std::move(service_->waiting[0]);
  service_->waiting.erase(service_->waiting.begin());
  EXPECT_EQ(answerTo(first), "none");
  EXPECT_EQ(answerTo(second), "none");
  held = std::move(service_->waiting[0]);
  EXPECT_EQ(answerTo(first), "service unavailable") << "it was given up for the other";
  held.send(number(5));
  EXPECT_EQ(answerTo(second), "{u32 0x1=5}");
}

// Promise: Nothing is sent for a notification that a handler answers later, nor when there is no
// program left to send it.
TEST_F(PendingReplyTest, OfANotificationIsDropped) {
  service_->subscribe(wait, {20, 1});
  platform_.notify(wait, {20, 1});
  ASSERT_EQ(service_->waiting.size(), 1U);
  const size_t sent = platform_.sent().size();
  service_->waiting[0].send(number(5));
  EXPECT_EQ(platform_.sent().size(), sent);
}

TEST_F(PendingReplyTest, IsStillSentWhenTheProgramHasLeftItsLoop) {
  const uint32_t asked = ask(wait);
  looper_.setupLeave(1000);
  platform_.advance(1s);
  ASSERT_TRUE(platform_.stopped());
  EXPECT_EQ(answerTo(asked), "none");
  service_.reset();
  EXPECT_EQ(answerTo(asked), "service unavailable");
}

TEST(PendingReplyWithoutLooper, IsDropped) {
  Service service;
  {
    test::TestPlatform platform;
    Looper looper(platform.makeRuntime());
    looper.addHandler(0, service);
    platform.postRequest(0, wait);
    platform.turn();
  }
  ASSERT_EQ(service.waiting.size(), 1U);
  service.waiting[0].send(number(5));
}

}  // namespace
}  // namespace lm
