#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <list>
#include <string>
#include <vector>

#include "support/Descriptors.h"
#include "upnp/Event.h"
#include "upnp/EventedLamp.h"

namespace {

using namespace std::chrono_literals;

/// How many deliveries are under way, and what waits for them.
class DeliveryLimits : public LampEvents {
 protected:
  void change(int times = 1) {
    for (int i = 0; i < times; ++i) lamp->setVar("Colour", "colour " + std::to_string(++changes_));
    platform.turn();
  }

  /// The connections that the subscriber has been offered since the last call. They stay open and
  /// are not answered.
  size_t takeAll(const Subscriber& from) {
    platform.turn();
    size_t count = 0;
    while (true) {
      lm::Fd fd(accept4(from.listener.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!fd.valid()) return count;
      taken.push_back(std::move(fd));
      ++count;
    }
  }

  void answer(const lm::Fd& connection) {
    EXPECT_TRUE(lm::test::writeText(connection.get(), "HTTP/1.1 200 OK\r\n\r\n"));
    platform.turn();
    platform.turn();
  }

  /// The SEQ of the NOTIFY that came over the connection.
  static std::string seqOf(const lm::Fd& connection) {
    return HTTPMessage(lm::test::readAvailable(connection.get())).getField("SEQ");
  }

  /// Those that subscribe and answer nothing, each on an address of its own.
  void subscribeSleepers(int count) {
    for (int i = 0; i < count; ++i) {
      Subscriber& one = sleepers.emplace_back(platform, ("127.0.1." + std::to_string(i)).c_str());
      sids.push_back(subscribe(one));
      ASSERT_NE(sids.back(), "");
    }
    passInitialDelay();
    platform.turn();
  }

  std::list<Subscriber> sleepers;
  std::vector<std::string> sids;  // theirs
  std::vector<lm::Fd> taken;

 private:
  int changes_ = 0;
};

constexpr size_t most = Subscription::mostUnderWay;

}  // namespace

// Promise [event-limit]: 16 deliveries to a subscriber may be under way at a time. The next changes
// wait until one of them has ended, and are delivered in their order.
TEST_F(DeliveryLimits, OfOneSubscriberLetTheNextOnesWaitInOrder) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  change(most + 3);
  EXPECT_EQ(takeAll(subscriber), most);
  answer(taken[4]);
  EXPECT_EQ(takeAll(subscriber), 1U);
  EXPECT_EQ(seqOf(taken.back()), std::to_string(most + 1));
  platform.advance(30s);
  EXPECT_EQ(linesOf("notify timeout"), static_cast<int>(most)) << "30 s from its own start";
  EXPECT_EQ(takeAll(subscriber), 2U);
  EXPECT_EQ(seqOf(taken.back()), std::to_string(most + 3));
  change();
  EXPECT_EQ(takeAll(subscriber), 1U);
}

// Promise [event-dropped]: 32 changes wait for a subscriber. The oldest of more is dropped with a
// line of the log, and its SEQ is used up.
TEST_F(DeliveryLimits, OfWaitingChangesDropTheOldestAndUseUpItsSeq) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  change(most + Subscription::mostPending);
  EXPECT_EQ(linesOf("notify dropped: Colour"), 0);
  change(2);
  EXPECT_EQ(linesOf("notify dropped: Colour"), 2);
  EXPECT_EQ(takeAll(subscriber), most);
  answer(taken.front());
  EXPECT_EQ(takeAll(subscriber), 1U);
  EXPECT_EQ(seqOf(taken.back()), std::to_string(1 + most + 2));
}

// Also proves [event-dropped].
TEST_F(DeliveryLimits, KeepSeq0ForTheInitialEvent) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  change(most - 1 + Subscription::mostPending + 3);
  passInitialDelay();
  ASSERT_EQ(takeAll(subscriber), most);
  EXPECT_EQ(seqOf(taken.front()), "0");
  EXPECT_EQ(seqOf(taken[1]), "4") << "three were dropped";
}

// Promise [event-places]: A subscriber never waits for the answers of others: with 64 deliveries of
// a service under way each subscriber has one at a time.
TEST_F(DeliveryLimits, LeaveAPlaceForEverySubscriber) {
  subscribeSleepers(99);
  change(30);
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  for (int i = 0; i < 5; ++i) {
    change();
    EXPECT_EQ(subscriber.notifyAndAnswer().getField("SEQ"), std::to_string(i + 1));
  }
  EXPECT_LE(lm::test::openDescriptors(), 64U + 100U + 100U + 20U)
      << "deliveries, listeners of this test, and others";
}

// Also proves [event-places].
TEST_F(DeliveryLimits, GoToTheSubscriberThatHasWaitedLongest) {
  subscribeSleepers(4);
  change(most - 1);  // 64 are under way
  for (const Subscriber& sleeper : sleepers) ASSERT_EQ(takeAll(sleeper), most);
  for (const std::string& sid : sids) unsubscribe(sid);
  Subscriber first(platform);
  Subscriber second(platform, "127.0.0.2");
  subscribeAndHear(first);
  change(2);
  subscribeAndHear(second);
  change(2);
  EXPECT_EQ(takeAll(first), 1U);
  EXPECT_EQ(takeAll(second), 1U);
  for (size_t i = 0; i < 3; ++i) answer(taken.at(i));
  EXPECT_EQ(takeAll(first), 1U);
  EXPECT_EQ(takeAll(second), 0U);
  for (size_t i = 3; i < 10; ++i) answer(taken.at(i));
  EXPECT_EQ(takeAll(second), 1U);
}

// Promise [event-orphans]: Deliveries of ended subscriptions are dropped early, the oldest first,
// when 164 of a service are under way.
TEST_F(DeliveryLimits, DropTheDeliveriesOfEndedSubscriptionsFirst) {
  const lm::test::TcpListener full(0);  // its queue holds one client
  const lm::Fd client = full.connect();
  ASSERT_TRUE(lm::test::waitFor(client.get(), POLLOUT));
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://127.0.0.1:" + std::to_string(full.port) + "/e>");
  const size_t before = lm::test::openDescriptors();
  for (size_t i = 0; i < 300; ++i) {
    const std::string sid = lamp->subscribe(request).getField("SID");
    ASSERT_NE(sid, "");
    unsubscribe(sid);
  }
  EXPECT_LE(lm::test::openDescriptors(), before + 164);
  EXPECT_EQ(linesOf("notify timeout"), 300 - 164);
  Subscriber subscriber(platform, "127.0.0.2");
  subscribeAndHear(subscriber);
  change();
  EXPECT_EQ(subscriber.notifyAndAnswer().getField("SEQ"), "1");
}

// Promise: Changes that wait when their subscription ends are not delivered.
TEST_F(DeliveryLimits, EndWithTheirSubscription) {
  Subscriber subscriber(platform);
  const std::string sid = subscribeAndHear(subscriber);
  change(most + 3);
  EXPECT_EQ(takeAll(subscriber), most);
  unsubscribe(sid);
  answer(taken.front());
  EXPECT_EQ(takeAll(subscriber), 0U);
}
