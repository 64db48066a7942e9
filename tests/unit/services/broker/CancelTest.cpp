// A program gives up a request.

#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Monitor.h"
#include "services/broker/BrokerFixture.h"
#include "support/LogCapture.h"

namespace lumen::test {
namespace {

class Cancelling : public BrokerTest {
 protected:
  /// The serial of the request that the broker says was cancelled; none: it has sent something
  /// else, or nothing.
  static std::optional<uint32_t> cancelled(Program& service) {
    const auto m = service.receive();
    const bool is = m && m->get_u32(lm::key::command) == lm::broker::cmd::cancel &&
                    m->get_u32_array_ref(lm::key::source) == std::vector<uint32_t>{0, 0} &&
                    !m->has_array(lm::key::destination);
    return is ? std::optional(m->get_u32(lm::key::serial)) : std::nullopt;
  }
};

// Promise [cancel-undone]: A cancelled request that a handler of lumend has carried out is undone,
// once, with a line in the log.
TEST_F(Cancelling, UndoesAChangeByAHandlerOfThisProcess) {
  Program client = connect(gatewayUser);
  const lm::test::LogCapture log;
  client.cancel(client.ask({20, 5}, someCommand));
  settle();
  EXPECT_EQ(rules.commands, std::vector<uint32_t>{someCommand});
  EXPECT_EQ(rules.undone, std::vector<uint32_t>{someCommand});
  EXPECT_EQ(log.text(),
            "connection 1 (process 1, user 200) has given up request 1, which is undone\n");
}

TEST_F(Cancelling, UndoesOnce) {
  Program client = connect(gatewayUser);
  const uint32_t serial = client.ask({20, 5}, someCommand);
  client.cancel(serial);
  givesUp(client, serial);
  EXPECT_EQ(rules.undone.size(), 1U);
}

TEST_F(Cancelling, KeepsAChangeThatWasFollowedByAnotherRequest) {
  Program client = connect(gatewayUser);
  const uint32_t first = client.ask({20, 5}, someCommand);
  const uint32_t second = client.ask({20, 5}, someCommand + 1);
  givesUp(client, first);
  EXPECT_EQ(rules.undone, std::vector<uint32_t>{});
  givesUp(client, second);
  EXPECT_EQ(rules.undone, std::vector<uint32_t>{someCommand + 1});
}

// Promise [cancel-own]: A program cancels its own requests only, and none that it has settled by
// sending the next one.
TEST_F(Cancelling, LeavesTheRequestsOfOthers) {
  Program client = connect(gatewayUser);
  Program other = connectAdministrator();
  const uint32_t serial = client.ask({20, 5}, someCommand);
  settle();
  EXPECT_EQ(other.ask({0}, lm::broker::cmd::services), serial);
  givesUp(other, serial);
  EXPECT_EQ(rules.undone, std::vector<uint32_t>{});
}

// Promise [cancel-service]: A service is notified that a request was cancelled, whether it has
// answered or not.
TEST_F(Cancelling, NotifiesAServiceThatHasNotAnswered) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  const uint32_t serial = asksGateway(client);
  const lm::message request = service.next();
  givesUp(client, serial);
  EXPECT_EQ(cancelled(service), request.get_u32(lm::key::serial));
  EXPECT_EQ(client.error(), "given up");

  answers(service, request, fields("late"));
  EXPECT_FALSE(client.receive());
}

TEST_F(Cancelling, NotifiesAServiceWhoseAnswerCrossedTheCancellation) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  const uint32_t serial = asksGateway(client);
  const lm::message request = service.next();
  answers(service, request);
  givesUp(client, serial);
  EXPECT_EQ(cancelled(service), request.get_u32(lm::key::serial));
}

TEST_F(Cancelling, NotifiesNoServiceOfASettledRequest) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  const uint32_t serial = asksGateway(client);
  answers(service, service.next());
  client.ask({20, 5}, someCommand);
  givesUp(client, serial);
  EXPECT_FALSE(service.receive());
}

TEST_F(Cancelling, DoesNotNotifyAServiceThatHasEnded) {
  Program client = connectAdministrator();
  uint32_t serial = 0;
  {
    Program service = connectGateway();
    serial = asksGateway(client);
    answers(service, service.next());
  }
  settle();
  givesUp(client, serial);
  EXPECT_FALSE(client.isDisconnected());
}

// Promise [cancel-waiting]: A request that its sender cancels is dropped while it waits for its
// service.
TEST_F(Cancelling, DropsARequestThatWaitsForItsService) {
  Program client = connectAdministrator();
  const uint32_t first = client.ask({gateway, 0}, someCommand);
  client.ask({gateway, 0}, someCommand + 1);
  givesUp(client, first);
  EXPECT_EQ(client.error(), "given up");
  Program service = startedGateway();
  const lm::message request = service.next();
  EXPECT_EQ(request.get_u32(lm::key::command), someCommand + 1);
  EXPECT_FALSE(service.receive());
}

// A request that was given up must not count as under way.
// Promise [cancel-count]: A cancelled request no longer counts as under way, and monitors see the
// cancellation.
TEST_F(Cancelling, MakesRoomForOtherRequests) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  for (size_t i = 0; i < Broker::maxRequests + 1; ++i) {
    client.cancel(client.ask({gateway, 0}, someCommand));
    settle(4);
    while (service.receive()) {
    }
    EXPECT_EQ(client.error(), "given up");
  }
}

TEST_F(Cancelling, IsShownToMonitors) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  const uint32_t serial = asksGateway(client);
  Program monitor = connectAdministrator();
  lm::message on;
  on.insert_bool(lm::monitor::key::on, true);
  monitor.ask({0}, lm::broker::cmd::monitor, on);
  settle();
  (void)monitor.receive();
  givesUp(client, serial);
  std::vector<std::pair<uint32_t, uint32_t>> ways;
  while (const auto seen = monitor.receive()) {
    if (seen->get_message(lm::monitor::key::message).get_u32(lm::key::command) ==
        lm::broker::cmd::cancel) {
      ways.emplace_back(seen->get_u32(lm::monitor::key::from), seen->get_u32(lm::monitor::key::to));
    }
  }
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{0x10002, 0}, {0, gateway}};
  EXPECT_EQ(ways, expected);
}

}  // namespace
}  // namespace lumen::test
