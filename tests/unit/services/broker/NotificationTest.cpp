#include <cerrno>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "services/broker/BrokerFixture.h"
#include "support/RefusedCall.h"

namespace lumen::test {
namespace {

class Notifications : public BrokerTest {};

// Promise [broker-notify]: A notification goes to every connection that subscribed to its command
// and its path, once, and to no other.
TEST_F(Notifications, GoFromAProgramToItsSubscribers) {
  Program service = connectGateway();
  Program subscriber = connectAdministrator();
  subscribe(subscriber, lm::cmd::changed, {gateway, 2});
  Program other = connectAdministrator();
  service.notify(lm::cmd::changed, 2, fields("news"));
  settle();
  const lm::message news = subscriber.next();
  EXPECT_EQ(news.get_string(7), "news");
  EXPECT_EQ(news.get_u32(lm::key::command), lm::cmd::changed);
  EXPECT_EQ(news.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{gateway, 2}));
  EXPECT_FALSE(other.receive());
  EXPECT_FALSE(service.receive());
}

// Also proves [broker-notify].
TEST_F(Notifications, GoFromAHandlerOfThisProcessToItsSubscribers) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::interfaceChanged, {20, 0});
  broker.notify(lm::cmd::interfaceChanged, {20, 0}, fields("link"));
  const lm::message news = subscriber.next();
  EXPECT_EQ(news.get_string(7), "link");
  EXPECT_EQ(news.get_u32(lm::key::command), lm::cmd::interfaceChanged);
  EXPECT_EQ(news.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{20, 0}));
}

// Promise: What is for administrators only is not notified to a service.
TEST_F(Notifications, OfAPrivateHandlerGoToAdministratorsOnly) {
  rules.forAdministrators = true;
  broker.addLocal(20, 6, rules);
  Program service = connect(gatewayUser);
  lm::message topic;
  topic.insert_u32(lm::broker::key::topicCommand, lm::cmd::changed);
  topic.insert_u32_array(lm::broker::key::topicSource, {20, 6});
  service.ask({0}, lm::broker::cmd::subscribe, topic);
  settle();
  const auto reply = service.receive();
  ASSERT_TRUE(reply);
  EXPECT_EQ(lm::getError(*reply), "not permitted");
  Program reader = connectAdministrator();
  subscribe(reader, lm::cmd::changed, {20, 6});
  broker.notify(lm::cmd::changed, {20, 6}, fields("news"));
  EXPECT_TRUE(reader.receive());
  EXPECT_FALSE(service.receive());
}

// Also proves [broker-notify].
TEST_F(Notifications, AreSentOnlyForTheirCommandAndPath) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::changed, {20, 1});
  broker.notify(lm::cmd::interfaceChanged, {20, 1}, {});
  broker.notify(lm::cmd::changed, {20, 0}, {});
  broker.notify(lm::cmd::changed, {21, 1}, {});
  EXPECT_FALSE(subscriber.receive());
}

// Promise [path-subscription]: A path that names no handler means handler 0 in subscriptions and
// notifications.
TEST_F(Notifications, TakeAPathWithoutHandlerForHandlerZero) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::changed, {20});
  broker.notify(lm::cmd::changed, {20, 0}, {});
  EXPECT_TRUE(subscriber.receive());
}

// Promise: A subscription ends when its program unsubscribes and when its connection ends.
// Also proves [broker-notify].
TEST_F(Notifications, StopAfterUnsubscribing) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::changed, {20, 0});
  subscribe(subscriber, lm::cmd::changed, {20, 0});
  broker.notify(lm::cmd::changed, {20, 0}, {});
  EXPECT_TRUE(subscriber.receive());
  EXPECT_FALSE(subscriber.receive()) << "subscribed twice, notified once";
  EXPECT_EQ(
      errorOf(subscriber, {0}, lm::broker::cmd::unsubscribe, topic(lm::cmd::changed, {20, 0})), "");
  broker.notify(lm::cmd::changed, {20, 0}, {});
  EXPECT_FALSE(subscriber.receive());
}

TEST_F(Notifications, AreDroppedWhenTheSubscriberHasEnded) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::changed, {20, 0});
  subscriber.close();
  settle();
  broker.notify(lm::cmd::changed, {20, 0}, {});
}

TEST_F(Notifications, CarryTheServiceNumberOfTheirSender) {
  Program service = connectGateway();
  Program subscriber = connectAdministrator();
  subscribe(subscriber, lm::cmd::changed, {20, 0});
  lm::message forged = fields("forged");
  forged.insert_u32(lm::key::command, lm::cmd::changed);
  forged.insert_u32_array(lm::key::source, {20, 0});
  service.send(forged);
  settle();
  EXPECT_FALSE(subscriber.receive());
}

// Promise: A connection that serves several numbers is identified by the one that it names.
TEST_F(Notifications, CarryTheServiceThatTheSenderNamesIfItIsItsOwn) {
  Program service = connectAdministrator();
  registerAs(service, 50);
  registerAs(service, 51);
  Program subscriber = connectAdministrator();
  subscribe(subscriber, lm::cmd::changed, {51, 2});
  lm::message news;
  news.insert_u32(lm::key::command, lm::cmd::changed);
  news.insert_u32_array(lm::key::source, {51, 2});
  service.send(news);
  settle();
  const lm::message heard = subscriber.next();
  EXPECT_EQ(heard.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{51, 2}));
}

TEST_F(Notifications, AreQueuedWhileTheSystemHasNoRoom) {
  Program subscriber = connectAdministrator();
  subscribe(subscriber, lm::cmd::changed, {20, 5});
  whileRefused({SCMP_SYS(sendto)}, ENOBUFS, [&] {
    broker.notify(lm::cmd::changed, {20, 5}, fields("one"));
    broker.notify(lm::cmd::changed, {20, 5}, fields("two"));
  });
  EXPECT_FALSE(subscriber.receive());
  settle();
  for (const char* text : {"one", "two"}) {
    const lm::message news = subscriber.next();
    EXPECT_EQ(news.get_string(7), text);
  }
}

// Promise: A notification that no datagram can hold is not delivered, which is logged: `a
// notification of 20/5 is too long`.
TEST_F(Notifications, ThatFitNoDatagramAreDropped) {
  Program subscriber = connectAdministrator();
  subscribe(subscriber, lm::cmd::changed, {20, 5});
  testing::internal::CaptureStdout();
  broker.notify(lm::cmd::changed, {20, 5}, fields(std::string(lm::maxDatagram, 'x')));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a notification of 20/5 is too long\n");
  EXPECT_FALSE(subscriber.receive());
}

TEST_F(Notifications, ContinueWhenAnotherProgramUnsubscribes) {
  Program subscriber = connect(gatewayUser);
  subscribe(subscriber, lm::cmd::changed, {20, 0});
  Program other = connect(gatewayUser);
  for (const uint32_t handler : {0U, 1U}) {
    EXPECT_EQ(
        errorOf(other, {0}, lm::broker::cmd::unsubscribe, topic(lm::cmd::changed, {20, handler})),
        "");
  }
  broker.notify(lm::cmd::changed, {20, 0}, {});
  EXPECT_TRUE(subscriber.receive());
}

// Promise [broker-subscriptions]: A connection may have 256 subscriptions; the next one is refused
// with `too many subscriptions`.
TEST_F(Notifications, AreBoundedInTopicsForEachProgram) {
  Program subscriber = connect(gatewayUser);
  for (uint32_t i = 0; i < 256; ++i) {
    subscribe(subscriber, i, {20, 0});
  }
  EXPECT_EQ(errorOf(subscriber, {0}, lm::broker::cmd::subscribe, topic(100'000, {20, 0})),
            "too many subscriptions");
}

// Promise: A subscription without command or without path is refused with `no command or path`.
TEST_F(Notifications, AreNotSubscribedWithoutCommandOrPath) {
  Program subscriber = connect(gatewayUser);
  lm::message onlyPath;
  onlyPath.insert_u32_array(lm::broker::key::topicSource, {20, 0});
  lm::message onlyCommand;
  onlyCommand.insert_u32(lm::broker::key::topicCommand, lm::cmd::changed);
  for (const lm::message& incomplete : {onlyPath, onlyCommand}) {
    EXPECT_EQ(errorOf(subscriber, {0}, lm::broker::cmd::subscribe, incomplete),
              "no command or path");
  }
}

}  // namespace
}  // namespace lumen::test
