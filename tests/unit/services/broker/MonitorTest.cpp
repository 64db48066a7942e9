#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Monitor.h"
#include "services/broker/BrokerFixture.h"

namespace lumen::test {
namespace {

using Path = std::vector<uint32_t>;

class Monitoring : public BrokerTest {
 protected:
  Monitoring() { watch(monitor); }

  /// Switches monitoring on or off for a program and reads the answer.
  void watch(Program& program, bool on = true) { EXPECT_EQ(errorOfWatching(program, on), ""); }

  /// Switches monitoring on or off for a program that does not monitor yet.
  std::string errorOfWatching(Program& program, std::optional<bool> on) {
    lm::message request;
    if (on) request.insert_bool(lm::monitor::key::on, *on);
    return errorOf(program, {0}, lm::broker::cmd::monitor, request);
  }

  /// The next message that the monitor is shown, unwrapped into `from`, `to` and `message`; false
  /// when there is none.
  [[nodiscard]] bool isShown() { return isShown(monitor); }
  [[nodiscard]] bool isShown(Program& program) {
    const std::optional<lm::message> shown = program.receive();
    if (!shown) return false;
    EXPECT_EQ(shown->get_u32(lm::key::command), lm::broker::cmd::monitor);
    EXPECT_EQ(shown->get_u32_array_ref(lm::key::source), (Path{0, 0}));
    from = shown->get_u32(lm::monitor::key::from, 77);
    to = shown->get_u32(lm::monitor::key::to, 77);
    message = shown->get_message(lm::monitor::key::message);
    cut = shown->get_bool(lm::monitor::key::cut);
    return true;
  }

  Program monitor = connectAdministrator();  // connection 1
  uint32_t from = 0;
  uint32_t to = 0;
  lm::message message;
  bool cut = false;
};

lm::message reply(lm::message fields, uint32_t serial) {
  fields.insert_bool(lm::key::isReply, true);
  fields.insert_u32(lm::key::serial, serial);
  return fields;
}

lm::message nested(int levels) {
  lm::message m = fields("deep");
  for (int i = 0; i < levels; ++i) {
    lm::message outer;
    outer.insert_message(1, m);
    m = outer;
  }
  return m;
}

// Promise: A monitor is shown each request when it arrives and each reply when it leaves, both
// under the requester's serial, with its sender and its receiver.
TEST_F(Monitoring, ShowsARequestToThisProcessAndItsReply) {
  rules.reply = fields("done");
  Program administrator = connectAdministrator();
  const uint32_t serial = administrator.ask({20, 5}, someCommand, fields("do"));
  settle();

  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, 0x10002U);
  EXPECT_EQ(to, 20U);
  EXPECT_EQ(message.get_string(7), "do");
  EXPECT_EQ(message.get_u32(lm::key::command), someCommand);
  EXPECT_EQ(message.get_u32(lm::key::serial), serial);
  EXPECT_EQ(message.get_u32_array_ref(lm::key::destination), (Path{20, 5}));
  EXPECT_EQ(message.get_u32_array_ref(lm::key::source), (Path{0x10002, 0}));
  EXPECT_FALSE(cut);

  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, 20U);
  EXPECT_EQ(to, 0x10002U);
  EXPECT_EQ(message, reply(fields("done"), serial));
  EXPECT_FALSE(isShown());
}

// Promise: Monitoring changes nothing of what passes.
TEST_F(Monitoring, DoesNotChangeTheRequest) {
  Program administrator = connectAdministrator();
  administrator.ask({20, 5}, someCommand, fields("do"));
  settle();
  ASSERT_EQ(rules.requests.size(), 1U);
  EXPECT_TRUE(rules.requests[0].get_u32_array_ref(lm::key::source).empty());
}

TEST_F(Monitoring, ShowsARequestToAProgramAndItsReplyUnderOneSerial) {
  Program service = connectGateway();
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, gateway) << "the user's service";
  EXPECT_EQ(to, 0U);
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, 0U);
  EXPECT_EQ(to, gateway);

  Program administrator = connectAdministrator();
  administrator.ask({20, 5}, someCommand);
  const uint32_t serial = asksGateway(administrator, fields("do"));
  ASSERT_TRUE(isShown() && isShown() && isShown());
  EXPECT_EQ(from, 0x10003U);
  EXPECT_EQ(to, gateway);
  EXPECT_EQ(message.get_string(7), "do");
  EXPECT_EQ(message.get_u32(lm::key::serial), serial);
  EXPECT_EQ(message.get_u32_array_ref(lm::key::source), (Path{0x10003, 0}));

  answers(service, service.next(), fields("done"));
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, gateway);
  EXPECT_EQ(to, 0x10003U);
  EXPECT_EQ(message, reply(fields("done"), serial));
  EXPECT_FALSE(isShown());
}

TEST_F(Monitoring, ShowsARequestWhenItArrivesEvenIfItMustWait) {
  Program administrator = connectAdministrator();
  asksGateway(administrator);
  ASSERT_TRUE(isShown());
  EXPECT_EQ(to, gateway);
  Program service = startedGateway();
  ASSERT_TRUE(isShown() && isShown()) << "registering";
  EXPECT_FALSE(isShown());
}

// Promise: A monitor is shown what the broker itself refuses or answers.
TEST_F(Monitoring, ShowsARequestThatTheBrokerRefuses) {
  struct Case {
    const char* text;
    Path path;
    uid_t user;
  };
  const Case cases[] = {{"no such service", {77, 0}, 0},
                        {"not permitted", {77, 0}, gatewayUser},
                        {"no such handler", {20, 99}, 0},
                        {"unknown command", {0}, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Program program = connect(c.user);
    program.ask(c.path, 99);
    settle();
    ASSERT_TRUE(isShown());
    EXPECT_EQ(to, c.path[0]);
    const uint32_t asking = from;
    ASSERT_TRUE(isShown());
    EXPECT_EQ(from, 0U);
    EXPECT_EQ(to, asking);
    EXPECT_EQ(lm::getError(message), c.text);
  }
}

TEST_F(Monitoring, ShowsThatAServiceDidNotComeUp) {
  Program administrator = connectAdministrator();
  asksGateway(administrator);
  ASSERT_TRUE(isShown());
  pass(Broker::startLimit);
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, 0U);
  EXPECT_EQ(lm::getError(message), "service unavailable");
}

// Promise: A monitor is shown a notification once, however many programs subscribed.
TEST_F(Monitoring, ShowsANotificationOnceWhateverItsSubscribers) {
  broker.notify(lm::cmd::changed, {20, 1}, fields("to nobody"));
  Program first = connect(gatewayUser);
  Program second = connect(gatewayUser);
  for (Program* subscriber : {&first, &second}) {
    subscribe(*subscriber, lm::cmd::changed, {20, 1});
  }
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, 20U);
  EXPECT_EQ(to, 0xFFFFFFFFU);
  EXPECT_EQ(message.get_string(7), "to nobody");
  EXPECT_EQ(message.get_u32(lm::key::command), lm::cmd::changed);
  EXPECT_EQ(message.get_u32_array_ref(lm::key::source), (Path{20, 1}));
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(isShown()) << "subscribing";

  broker.notify(lm::cmd::changed, {20, 1}, fields("to two"));
  ASSERT_TRUE(isShown());
  EXPECT_EQ(message.get_string(7), "to two");
  EXPECT_FALSE(isShown());
}

TEST_F(Monitoring, ShowsTheNotificationOfAProgram) {
  Program service = connect(gatewayUser);
  service.notify(lm::cmd::changed, 2, fields("news"));
  settle();
  ASSERT_TRUE(isShown());
  EXPECT_EQ(from, gateway);
  EXPECT_EQ(to, lm::monitor::subscribers);
  EXPECT_EQ(message.get_u32_array_ref(lm::key::source), (Path{gateway, 2}));
}

// Promise: Monitoring is for administrators, others get `not permitted`; a request without a switch
// gets `neither on nor off`.
TEST_F(Monitoring, IsForAdministratorsOnly) {
  Program service = connect(gatewayUser);
  EXPECT_EQ(errorOfWatching(service, true), "not permitted");
  broker.notify(lm::cmd::changed, {20, 1}, {});
  EXPECT_FALSE(service.receive());
}

TEST_F(Monitoring, IsEitherOnOrOff) {
  Program administrator = connectAdministrator();
  EXPECT_EQ(errorOfWatching(administrator, std::nullopt), "neither on nor off");
  broker.notify(lm::cmd::changed, {20, 1}, {});
  EXPECT_FALSE(administrator.receive());
}

// Promise: Monitoring ends when it is switched off and when the monitor ends.
TEST_F(Monitoring, EndsWhenItIsSwitchedOff) {
  broker.notify(lm::cmd::changed, {20, 1}, {});
  ASSERT_TRUE(isShown());

  lm::message off;
  off.insert_bool(lm::monitor::key::on, false);
  monitor.ask({0}, lm::broker::cmd::monitor, off);
  settle();
  ASSERT_TRUE(isShown()) << "the request that switches it off";
  EXPECT_EQ(monitor.error(), "");
  broker.notify(lm::cmd::changed, {20, 1}, {});
  EXPECT_FALSE(monitor.receive());
}

TEST_F(Monitoring, EndsWithTheConnection) {
  monitor.close();
  settle();
  broker.notify(lm::cmd::changed, {20, 1}, {});
  Program administrator = connectAdministrator();
  administrator.ask({20, 5}, someCommand);
  settle();
  EXPECT_TRUE(administrator.receive());
}

TEST_F(Monitoring, SurvivesTheEndOfAMonitorThatServesAnAwaitedService) {
  monitor.ask({0}, lm::broker::cmd::registerServices, services({77}));
  Program administrator = connectAdministrator();
  administrator.ask({77, 0}, someCommand);
  settle();
  monitor.close();
  settle();
  EXPECT_EQ(administrator.error(), "service unavailable");
}

// Promise: The events of a monitor are not shown to monitors.
TEST_F(Monitoring, IsNotShownItself) {
  Program other = connectAdministrator();
  watch(other);
  ASSERT_TRUE(isShown() && isShown()) << "switching it on";
  EXPECT_FALSE(isShown());
  broker.notify(lm::cmd::changed, {20, 1}, fields("news"));
  settle();
  for (Program* watching : {&monitor, &other}) {
    ASSERT_TRUE(isShown(*watching));
    EXPECT_EQ(message.get_string(7), "news");
    EXPECT_FALSE(isShown(*watching));
  }
}

// Promise: A message that would be too long or too deep inside another one is shown with its
// transport fields only, or without any, and marked as cut.
TEST_F(Monitoring, ShowsOnlyTheTransportOfAMessageThatIsTooLong) {
  Program service = connect(gatewayUser);
  lm::message longest = fields({});
  longest.insert_u32(lm::key::command, lm::cmd::changed);
  longest.insert_u32_array(lm::key::source, {0, 2});
  longest.insert_string(7, std::string(lm::maxDatagram - lm::encode(longest).size(), 'x'));
  service.send(longest);
  settle();
  ASSERT_TRUE(isShown());
  EXPECT_TRUE(cut);
  EXPECT_EQ(message.get_u32(lm::key::command), lm::cmd::changed);
  EXPECT_EQ(message.get_u32_array_ref(lm::key::source), (Path{gateway, 2}));
  EXPECT_EQ(message.get_string(7), "");

  longest.insert_string(7, std::string(lm::maxDatagram - 200, 'x'));
  service.send(longest);
  settle();
  ASSERT_TRUE(isShown());
  EXPECT_FALSE(cut);
  EXPECT_EQ(message.get_string(7).size(), lm::maxDatagram - 200);
}

TEST_F(Monitoring, ShowsAllOfTheLongestMessageThatFits) {
  Program service = connect(gatewayUser);
  for (const size_t tooMany : {0U, 1U}) {
    lm::message passing;
    passing.insert_u32(lm::key::command, lm::cmd::changed);
    passing.insert_u32_array(lm::key::source, {gateway, 2});
    passing.insert_string(7, "");
    lm::message shown;
    shown.insert_u32(lm::key::command, lm::broker::cmd::monitor);
    shown.insert_u32_array(lm::key::source, {0, 0});
    shown.insert_u32(lm::monitor::key::from, gateway);
    shown.insert_u32(lm::monitor::key::to, lm::monitor::subscribers);
    shown.insert_message(lm::monitor::key::message, passing);
    const size_t room = lm::maxDatagram - lm::encode(shown).size();
    passing.insert_string(7, std::string(room + tooMany, 'x'));
    service.send(passing);
    settle();
    ASSERT_TRUE(isShown());
    EXPECT_EQ(cut, tooMany == 1);
  }
}

TEST_F(Monitoring, ShowsOnlyTheTransportOfAMessageThatIsTooDeep) {
  for (const int levels : {lm::maxNesting - 1, lm::maxNesting}) {
    Program service = connect(gatewayUser);
    service.notify(lm::cmd::changed, 2, nested(levels));
    settle();
    ASSERT_TRUE(isShown());
    EXPECT_EQ(cut, levels == lm::maxNesting);
    EXPECT_EQ(message.get_u32(lm::key::command), lm::cmd::changed);
    EXPECT_EQ(message.get_message(1).get_message(1).get_message(1) == nested(levels - 3), !cut);
  }
}

TEST_F(Monitoring, CountsAnArrayOfMessagesAsALevel) {
  for (const int levels : {lm::maxNesting - 1, lm::maxNesting}) {
    Program service = connect(gatewayUser);
    lm::message deep;
    deep.insert_message_array(1, {fields("flat"), nested(levels - 1)});
    service.notify(lm::cmd::changed, 2, deep);
    settle();
    ASSERT_TRUE(isShown());
    EXPECT_EQ(cut, levels == lm::maxNesting);
  }
}

TEST_F(Monitoring, ShowsNothingOfAMessageWhoseTransportIsTooLong) {
  Program service = connect(gatewayUser);
  lm::message longest;
  longest.insert_u32(lm::key::command, lm::cmd::changed);
  longest.insert_u32_array(lm::key::source, {0, 2});
  longest.insert_string(lm::key::errorText, std::string(lm::maxDatagram - 40, 'x'));
  service.send(longest);
  settle();
  ASSERT_TRUE(isShown());
  EXPECT_TRUE(cut);
  EXPECT_EQ(from, gateway);
  EXPECT_EQ(message, lm::message());
}

// Promise: A monitor that does not read is disconnected and delays no other.
TEST_F(Monitoring, ByAProgramThatDoesNotReadEndsAndDelaysNoOther) {
  testing::internal::CaptureStdout();
  Program other = connectAdministrator();
  watch(other);
  const lm::message big = fields(std::string(100'000, 'x'));
  for (int i = 0; i < 60; ++i) {
    broker.notify(lm::cmd::changed, {20, 1}, big);
    EXPECT_TRUE(isShown(other));
  }
  settle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "connection 1 (process 1, user 0): does not read what it is sent\n");
  broker.notify(lm::cmd::changed, {20, 1}, {});
  EXPECT_TRUE(isShown(other));
}

}  // namespace
}  // namespace lumen::test
