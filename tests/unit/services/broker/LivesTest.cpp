#include <sys/socket.h>

#include <chrono>
#include <csignal>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "services/broker/BrokerFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

/// Sends a request, and the next one for each request that the service receives.
class EndlessSender : public LocalHandler {
 public:
  lm::message handle(const Caller& /*caller*/, uint32_t /*command*/,
                     const lm::message& /*request*/) override {
    if (++heard < enough) send();
    return {};
  }
  void connectionEnded(uint64_t /*connection*/) override { isEnded = true; }

  /// Returns the broker's end.
  lm::Fd connect() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    socket_.reset(ends[1]);
    return lm::Fd(ends[0]);
  }
  /// Whether or not the broker still accepts it.
  void send() {
    const std::string datagram = lm::encode(requestTo({20, 6}, someCommand));
    (void)::send(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }

  int heard = 0;
  bool isEnded = false;

 private:
  static constexpr int enough = 1000;  // so that a failing test ends

  lm::Fd socket_;
};

/// Requests to a service that comes and goes.
class Lives : public BrokerTest {
 protected:
  /// Of the gateway daemon, in the list of services.
  std::string stateInList() {
    Program administrator = connectAdministrator();
    administrator.ask({0}, lm::broker::cmd::services);
    settle();
    const auto reply = administrator.receive();
    if (!reply) return "no answer";
    return reply->get_message_array_ref(lm::key::records)
        .at(1)
        .get_string(lm::broker::listed::state);
  }
};

TEST_F(Lives, AreSeenInTheListOfServices) {
  EXPECT_EQ(stateInList(), "stopped");
  connectAdministrator().ask({gateway, 0}, someCommand);
  settle();
  EXPECT_EQ(stateInList(), "starting");
  Program service = startedGateway();
  EXPECT_EQ(stateInList(), "running");
  unregister(service, gateway);
  EXPECT_EQ(stateInList(), "leaving");
  processes.exit(processes.last(), 0);
  EXPECT_EQ(stateInList(), "stopped");
}

// Also proves [broker-start-wait].
TEST_F(Lives, BeginWithARequestThatWaitsForThem) {
  Program client = connectAdministrator();
  client.ask({gateway, 0}, someCommand, fields("one"));
  asksGateway(client, fields("two"));
  EXPECT_EQ(processes.started.size(), 1U);
  EXPECT_FALSE(client.receive());

  Program service = startedGateway();
  const auto first = service.receive();
  const auto second = service.receive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->get_string(7), "one");
  EXPECT_EQ(second->get_string(7), "two");
  service.answer(*first);
  answers(service, *second);
  EXPECT_TRUE(client.receive());
  EXPECT_TRUE(client.receive());
}

// Promise [broker-start-wait]: A request for a service that is not up waits for it, in order, up to
// five seconds, then `service unavailable`.
// Promise: A request that was answered because its service started too late is not carried out
// later.
TEST_F(Lives, AreWaitedForFiveSeconds) {
  Program client = connectAdministrator();
  asksGateway(client);
  EXPECT_EQ(loop.nextDue(), clock.now() + 5s) << "nothing runs before that";
  pass(1s);
  asksGateway(client);
  pass(3900ms);
  EXPECT_FALSE(client.receive());
  pass(100ms);
  EXPECT_EQ(client.error(), "service unavailable");
  EXPECT_FALSE(client.receive()) << "the second has a second left";
  pass(1s);
  EXPECT_EQ(client.error(), "service unavailable");
  Program service = startedGateway();
  EXPECT_FALSE(service.receive()) << "what is answered is not carried out";
}

// Promise: The broker answers at once for a service that ends before it registered: `service
// unavailable`.
TEST_F(Lives, ThatEndBeforeTheyRegisterAreNotWaitedFor) {
  Program client = connectAdministrator();
  asksGateway(client);
  processes.exit(processes.last(), 1);
  settle();
  EXPECT_EQ(client.error(), "service unavailable");
}

// Promise: A request for a service in back-off is answered with `service unavailable` at once, an
// administrator's starts the service.
TEST_F(Lives, AreNotBegunDuringABackOffForAService) {
  Program client = connectAdministrator();
  client.ask({resolver, 0}, someCommand);
  settle();
  processes.exit(processes.last(), 1);
  Program service = connect(gatewayUser);
  service.ask({resolver, 0}, someCommand);
  settle();
  EXPECT_EQ(service.error(), "service unavailable");
  EXPECT_EQ(processes.started.size(), 1U);
}

TEST_F(Lives, AreBegunDuringABackOffForAnAdministrator) {
  Program client = connectAdministrator();
  asksGateway(client);
  processes.exit(processes.last(), 1);
  settle();
  EXPECT_EQ(client.error(), "service unavailable");
  asksGateway(client);
  EXPECT_EQ(processes.started.size(), 2U);
  Program service = startedGateway();
  EXPECT_TRUE(service.receive());
}

// Promise: A request that arrives before a service has unregistered goes to this process, a later
// one to the next; none is lost and none answered twice.
TEST_F(Lives, FollowEachOtherWithoutLosingARequest) {
  Program client = connectAdministrator();
  asksGateway(client, fields("wake"));
  Program first = startedGateway();
  first.answer(first.next());
  client.ask({gateway, 0}, someCommand, fields("before"));
  first.ask({0}, lm::broker::cmd::unregisterServices, services({gateway}));
  settle();
  // The one before the answer belongs to this process, the one after it to the next.
  asksGateway(client, fields("after"));
  const lm::message before = first.next();
  EXPECT_EQ(before.get_string(7), "before");
  first.answer(before, fields("by the first"));
  EXPECT_TRUE(first.next().get_bool(lm::key::isReply));
  EXPECT_FALSE(first.receive());
  EXPECT_EQ(processes.started.size(), 1U) << "one process at a time";

  first.close();
  processes.exit(processes.last(), 0);
  EXPECT_EQ(processes.started.size(), 2U);
  Program second = startedGateway();
  const lm::message after = second.next();
  EXPECT_EQ(after.get_string(7), "after");
  answers(second, after, fields("by the second"));
  EXPECT_TRUE(client.receive());
  EXPECT_EQ(client.next().get_string(7), "by the first");
  EXPECT_EQ(client.next().get_string(7), "by the second");
  EXPECT_FALSE(client.receive());
}

// Promise: A service that registers again instead of ending gets the requests that waited.
TEST_F(Lives, ContinueWhenTheSameConnectionRegistersAgain) {
  Program client = connectAdministrator();
  asksGateway(client);
  Program service = startedGateway();
  service.answer(service.next());
  unregister(service, gateway);
  asksGateway(client, fields("waits"));
  EXPECT_FALSE(service.receive());
  registerAs(service, gateway);
  const lm::message arrived = service.next();
  EXPECT_EQ(arrived.get_string(7), "waits");
  EXPECT_EQ(processes.started.size(), 1U);
}

TEST_F(Lives, AreEndedOnlyByTheirOwnConnection) {
  Program service = connect(gatewayUser);
  const auto unregisters = [&](const std::vector<uint32_t>& numbers) {
    return errorOf(service, {0}, lm::broker::cmd::unregisterServices, services(numbers));
  };
  EXPECT_EQ(unregisters({gateway}), "service 40 is not registered here");
  Program other = connectGateway();
  EXPECT_EQ(unregisters({gateway}), "service 40 is not registered here");
  other.close();
  settle();
  registerAs(service, gateway);
  EXPECT_EQ(unregisters({gateway, gateway}), "") << "once is enough";
  registerAs(service, gateway);
}

// Promise: How a process ended is judged once everything that it sent has been handled.
TEST_F(Lives, AreJudgedAfterTheirConnectionsAreDrained) {
  Program client = connectAdministrator();
  asksGateway(client);
  Program service = startedGateway();
  service.answer(service.next(), fields("done"));
  service.ask({0}, lm::broker::cmd::unregisterServices, services({gateway}));
  service.close();
  // Its end is known before anything that it sent was handled.
  processes.exit(processes.last(), 0);
  settle();
  EXPECT_EQ(client.next().get_string(7), "done");
  pass(120s);
  EXPECT_EQ(processes.started.size(), 1U) << "it was not needed any more";
}

// Promise: The connection of a service ends with its process, even if another process has inherited
// it and keeps sending.
TEST_F(Lives, EndAlthoughAnotherProcessHoldsTheirConnection) {
  connectAdministrator().ask({gateway, 0}, someCommand);
  settle();
  Program inherited = startedGateway();
  processes.dieBySignal(processes.last(), SIGKILL);
  EXPECT_TRUE(inherited.receive());
  EXPECT_TRUE(inherited.isDisconnected());
  EXPECT_EQ(stateInList(), "waiting");
  pass(1s);
  const Program next = startedGateway();
  EXPECT_EQ(stateInList(), "running");
}

TEST_F(Lives, EndAlthoughAnotherProcessKeepsSending) {
  EndlessSender sender;
  broker.addLocal(20, 6, sender);
  broker.admit(sender.connect(), {processes.last(), gatewayUser, {100}});
  sender.send();
  processes.exit(processes.last(), 0);
  EXPECT_EQ(sender.heard, 1);
  EXPECT_TRUE(sender.isEnded);
}

// Promise: A service that crashed gets its number back when it starts again.
TEST_F(Lives, MakeRoomForTheNextOneWhenTheyCrash) {
  Program client = connectAdministrator();
  asksGateway(client);
  Program first = startedGateway();
  first.close();
  processes.dieBySignal(processes.last(), SIGKILL);
  EXPECT_EQ(client.error(), "service unavailable");
  pass(1s);
  EXPECT_EQ(processes.started.size(), 2U);
  Program second = startedGateway();
  asksGateway(client);
  EXPECT_TRUE(second.receive());
}

TEST_F(Lives, DeliverARequestWhoseSenderHasEnded) {
  Program client = connectAdministrator();
  client.ask({gateway, 0}, someCommand, fields("undo"));
  client.close();
  settle();
  Program service = startedGateway();
  const lm::message arrived = service.next();
  EXPECT_EQ(arrived.get_string(7), "undo");
}

// Promise [broker-waiting]: Requests of 4 MiB in all, from all senders, may wait for services, in
// their wire form; the next one is refused with `too many requests at a time`.
TEST_F(Lives, BoundTheRequestsThatWaitForThem) {
  Program one = connectAdministrator();
  Program other = connectAdministrator();
  const std::string large(100'000, 'x');
  const size_t room = size_t{4} * 1024 * 1024 / large.size();
  const auto fill = [&] {
    for (size_t i = 0; i < room; ++i) {
      (i % 2 == 0 ? one : other).ask({gateway, 0}, someCommand, fields(large));
      settle(2);
    }
    EXPECT_FALSE(one.receive() || other.receive());
    one.ask({gateway, 0}, someCommand, fields(large));
    settle();
    EXPECT_EQ(one.error(), "too many requests at a time");
  };
  fill();
  pass(5s);
  for (size_t i = 0; i < room; ++i) {
    EXPECT_EQ((i % 2 == 0 ? one : other).error(), "service unavailable");
  }
  fill();
  Program service = startedGateway();
  while (service.receive()) settle(2);
  unregister(service, gateway);
  fill();
}

// Promise: A service that is started by hand is served although lumend did not start it.
TEST_F(Lives, OfAServiceThatIsRunByHandNeedNoProcess) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  asksGateway(client);
  EXPECT_TRUE(service.receive());
  EXPECT_TRUE(processes.started.empty());
}

// Promise: While lumend ends, running services are served; requests to others get `service
// unavailable`.
TEST_F(Lives, AreOverWhileLumendEnds) {
  Program client = connectAdministrator();
  asksGateway(client);
  Program service = startedGateway();
  supervisor.shutDown();
  EXPECT_TRUE(service.receive());
  client.ask({gateway, 0}, someCommand);
  client.ask({resolver, 0}, someCommand);
  settle();
  EXPECT_TRUE(service.receive()) << "what runs is served until it ends";
  EXPECT_EQ(client.error(), "service unavailable");
}

}  // namespace
}  // namespace lumen::test
