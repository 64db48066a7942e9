#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "services/broker/BrokerFixture.h"

namespace lumen::test {
namespace {

class Routing : public BrokerTest {};

// Promise: A request goes to the connection that has its service number, and the reply back to the
// requester under the requester's serial.
// Also proves [broker-sender].
TEST_F(Routing, CarriesARequestToItsServiceAndTheReplyBack) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  lm::message request = fields("question");
  request.insert_u32_array(lm::key::source, {77, 3});
  const uint32_t serial = asksGateway(client, request);

  const lm::message arrived = service.next();
  EXPECT_EQ(arrived.get_string(7), "question");
  EXPECT_EQ(arrived.get_u32(lm::key::command), someCommand);
  EXPECT_EQ(arrived.get_u32_array_ref(lm::key::destination), (std::vector<uint32_t>{gateway, 0}));
  // Element 0 is the broker's: the second connection, which has no service number.
  EXPECT_EQ(arrived.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{0x10002, 3}));

  answers(service, arrived, fields("answer"));
  const lm::message reply = client.next();
  EXPECT_EQ(reply.get_string(7), "answer");
  EXPECT_TRUE(reply.get_bool(lm::key::isReply));
  EXPECT_EQ(reply.get_u32(lm::key::serial), serial);
}

// Promise: While a request is under way it has a serial of the broker's, so that requesters with
// equal serials each get their own reply.
TEST_F(Routing, ReplacesTheSerial) {
  Program service = connectGateway();
  Program first = connectAdministrator();
  Program second = connectAdministrator();
  const uint32_t serial = asksGateway(first);
  EXPECT_EQ(second.ask({gateway, 0}, someCommand), serial);
  settle();
  const auto a = service.receive();
  const auto b = service.receive();
  ASSERT_TRUE(a && b);
  EXPECT_NE(a->get_u32(lm::key::serial), b->get_u32(lm::key::serial));

  service.answer(*b, fields("for the second"));
  answers(service, *a, fields("for the first"));
  EXPECT_EQ(first.next().get_string(7), "for the first");
  EXPECT_EQ(second.next().get_string(7), "for the second");
}

// Promise [broker-sender]: The broker writes who sends: the sender's service number, or `0x10000` +
// connection number for one that has none.
TEST_F(Routing, NamesTheSenderByItsServiceNumber) {
  Program service = connectGateway();
  Program names = connectResolver();
  lm::message request;
  request.insert_u32_array(lm::key::source, {0, 0});
  service.ask({resolver, 0}, someCommand, request);
  settle();
  const lm::message arrived = names.next();
  EXPECT_EQ(arrived.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{gateway, 0}));
}

// Promise: A sender cannot claim another's service number in a request or a notification.
TEST_F(Routing, WritesTheSourceOfARequestItself) {
  Program service = connectGateway();
  Program names = connectResolver();
  for (const std::vector<uint32_t>& claimed :
       {std::vector<uint32_t>{20, 5}, {}, {20}, {20, 5, 1}}) {
    lm::message request;
    request.insert_u32_array(lm::key::source, claimed);
    service.ask({resolver, 0}, someCommand, request);
    settle();
    const lm::message arrived = names.next();
    const std::vector<uint32_t>& source = arrived.get_u32_array_ref(lm::key::source);
    ASSERT_FALSE(source.empty());
    EXPECT_EQ(source[0], gateway);
  }
}

TEST_F(Routing, WritesTheSourceOfAReplyItself) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  asksGateway(client);
  const lm::message request = service.next();
  lm::message forged;
  forged.insert_u32_array(lm::key::source, {20, 5});
  answers(service, request, forged);
  const lm::message reply = client.next();
  EXPECT_EQ(reply.get_u32_array_ref(lm::key::source), (std::vector<uint32_t>{gateway, 5}));
}

// Promise: A reply to no pending request is ignored, and a second reply to one request too.
TEST_F(Routing, IgnoresAReplyWithoutARequest) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  asksGateway(client);
  const lm::message arrived = service.next();
  lm::message unknown = arrived;
  unknown.insert_u32(lm::key::serial, arrived.get_u32(lm::key::serial) + 1);
  service.answer(unknown);
  service.answer(arrived);
  answers(service, arrived);
  EXPECT_TRUE(client.receive());
  EXPECT_FALSE(client.receive()) << "one request, one answer";
  EXPECT_FALSE(service.isDisconnected());
}

// Promise: A reply from another connection than the one that was asked is ignored.
TEST_F(Routing, IgnoresAReplyFromAnotherProgramThanTheRecipient) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  asksGateway(client);
  const lm::message arrived = service.next();
  Program forger = connect(resolverUser);
  answers(forger, arrived, fields("forged"));
  EXPECT_FALSE(client.receive());
}

// Promise [broker-unavailable]: The broker answers for a service that ends before it answered:
// `service unavailable`.
TEST_F(Routing, AnswersForAServiceThatEndsWithoutAnswering) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  asksGateway(client);
  service.close();
  settle();
  EXPECT_EQ(client.error(), "service unavailable");
  EXPECT_FALSE(client.receive());
}

// Promise: What a service sent before it ended is still forwarded.
TEST_F(Routing, ForwardsTheLastReplyOfAServiceThatHasEnded) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  client.ask({gateway, 0}, someCommand);
  asksGateway(client);
  service.answer(service.next(), fields("last words"));
  service.close();  // with a request unread
  settle();
  EXPECT_EQ(client.next().get_string(7), "last words");
  EXPECT_EQ(client.error(), "service unavailable");
}

// Promise: The requests of a program that ends at once are still delivered.
TEST_F(Routing, DeliversTheRequestOfAProgramThatEndsAtOnce) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  client.ask({gateway, 0}, someCommand, fields("one"));
  client.ask({66}, someCommand);
  client.ask({gateway, 0}, someCommand, fields("two"));
  client.close();
  settle();
  EXPECT_EQ(service.next().get_string(7), "one");
  const lm::message second = service.next();
  EXPECT_EQ(second.get_string(7), "two");
  answers(service, second);
  EXPECT_FALSE(service.isDisconnected());
}

// Promise: A request to a number that no service has is answered with `no such service`.
TEST_F(Routing, RefusesARequestToAnUndefinedService) {
  Program client = connectAdministrator();
  client.ask({67}, someCommand);
  settle();
  EXPECT_EQ(client.error(), "no such service");
}

// Promise: A request to a path in lumend where there is no handler is answered with `no such
// handler`.
TEST_F(Routing, RefusesARequestToAMissingHandlerOfThisProcess) {
  Program client = connectAdministrator();
  client.ask({20, 6}, someCommand);
  client.ask({20}, someCommand);
  settle();
  EXPECT_EQ(client.error(), "no such handler");
  EXPECT_EQ(client.error(), "no such handler");
}

// Promise: lumend's own handlers answer without another process, get the sender, and are notified
// of the end of a connection after everything that it sent.
TEST_F(Routing, AnswersForAHandlerOfThisProcess) {
  rules.reply = fields("rule");
  Program client = connectAdministrator();
  const uint32_t serial = client.ask({20, 5}, lm::cmd::list, fields("filter"));
  settle();
  const lm::message reply = client.next();
  EXPECT_EQ(reply.get_string(7), "rule");
  EXPECT_TRUE(reply.get_bool(lm::key::isReply));
  EXPECT_EQ(reply.get_u32(lm::key::serial), serial);
  ASSERT_EQ(rules.requests.size(), 1U);
  EXPECT_EQ(rules.commands[0], lm::cmd::list);
  EXPECT_EQ(rules.requests[0].get_string(7), "filter");
}

TEST_F(Routing, IdentifiesTheCallerToAHandlerOfThisProcess) {
  Program service = connect(gatewayUser);
  service.ask({20, 5}, lm::cmd::addObject);
  settle();
  registerAs(service, gateway);
  service.ask({20, 5}, lm::cmd::addObject);
  settle();
  Program administrator = connect(otherUser, {100, administrators});
  administrator.ask({20, 5}, lm::cmd::list);
  settle();
  ASSERT_EQ(rules.callers.size(), 3U);
  EXPECT_EQ(rules.callers[0].service, gateway) << "identified by its user";
  EXPECT_EQ(rules.callers[1].service, gateway);
  EXPECT_EQ(rules.callers[1].name, "upnp");
  EXPECT_EQ(rules.callers[1].connection, rules.callers[0].connection);
  EXPECT_FALSE(rules.callers[1].administrator);
  EXPECT_EQ(rules.callers[1].ports, PortGrant{.most = 100});
  EXPECT_EQ(rules.callers[2].ports, std::nullopt);
  EXPECT_EQ(rules.callers[2].service, 0U);
  EXPECT_EQ(rules.callers[2].name, "");
  EXPECT_TRUE(rules.callers[2].administrator);
}

TEST_F(Routing, NotifiesAHandlerOfThisProcessWhenAConnectionEnds) {
  Program service = connect(gatewayUser);
  service.ask({20, 5}, lm::cmd::addObject);
  service.close();
  settle();
  ASSERT_EQ(rules.callers.size(), 1U) << "what it sent is handled first";
  EXPECT_EQ(rules.ended, std::vector<uint64_t>{rules.callers[0].connection});
}

// Promise: An answer that no datagram can hold becomes the error `the answer is too long`.
TEST_F(Routing, CutsAnAnswerThatNoDatagramHolds) {
  rules.reply = fields(std::string(lm::maxDatagram, 'x'));
  Program client = connectAdministrator();
  const uint32_t serial = client.ask({20, 5}, lm::cmd::list);
  settle();
  const lm::message answer = client.next();
  EXPECT_EQ(lm::getError(answer), "the answer is too long");
  EXPECT_TRUE(answer.get_bool(lm::key::isReply));
  EXPECT_EQ(answer.get_u32(lm::key::serial), serial);
}

// Promise: A datagram of full length is carried; a request that grows beyond it by the path that
// the broker writes is refused with `the request is too long`.
TEST_F(Routing, CarriesTheLongestDatagram) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  lm::message request = requestTo({gateway, 0}, someCommand);
  request.insert_u32_array(lm::key::source, {0, 0});
  request.insert_string(7, "");
  const size_t room = lm::maxDatagram - lm::encode(request).size();
  request.insert_string(7, std::string(room, 'x'));
  client.send(request);
  settle();
  const lm::message arrived = service.next();
  EXPECT_EQ(arrived.get_string(7).size(), room);
}

TEST_F(Routing, RefusesARequestThatGrowsTooLongOnItsWay) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  lm::message request = requestTo({gateway, 0}, someCommand);
  request.insert_string(7, "");
  request.insert_string(7, std::string(lm::maxDatagram - lm::encode(request).size(), 'x'));
  client.send(request);
  settle();
  EXPECT_EQ(client.error(), "the request is too long");
  EXPECT_FALSE(service.receive());
}

// Promise [broker-requests]: A connection may have 1024 requests under way; the next one is refused
// with `too many requests at a time`.
TEST_F(Routing, BoundsTheRequestsOfAProgramThatAreUnderWay) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  for (size_t i = 0; i < 1024; ++i) {
    client.ask({gateway, 0}, someCommand);
    settle(2);
  }
  EXPECT_FALSE(client.receive());
  asksGateway(client);
  EXPECT_EQ(client.error(), "too many requests at a time");
  answers(service, service.next());
  EXPECT_TRUE(client.receive());
  asksGateway(client);
  EXPECT_FALSE(client.receive()) << "there is room for one more";
}

// What each program sends is handled in the order of sending, whatever other programs send.
// Promise [broker-order]: What a connection sends is handled strictly in its order, whatever other
// connections send.
TEST_F(Routing, KeepsTheOrderOfAProgram) {
  Program service = connectGateway();
  Program client = connectAdministrator();
  Program other = connectAdministrator();
  for (int i = 0; i < 20; ++i) {
    client.ask({gateway, 0}, someCommand, fields(std::to_string(i)));
    other.ask({20, 5}, lm::cmd::list);
  }
  settle();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(service.next().get_string(7), std::to_string(i));
}

}  // namespace
}  // namespace lumen::test
