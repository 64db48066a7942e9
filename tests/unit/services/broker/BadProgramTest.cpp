#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <random>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "services/broker/BrokerFixture.h"
#include "support/RefusedCall.h"

namespace lumen::test {
namespace {

/// Programs that violate the protocol must not harm others.
class BadProgram : public BrokerTest {
 protected:
  void expectThatOthersAreServed() {
    Program client = connectAdministrator();
    client.ask({20, 5}, lm::cmd::list);
    settle();
    EXPECT_TRUE(client.receive());
  }
};

lm::message rightRequest() { return requestTo({20, 5}, lm::cmd::list); }

// Promise [broker-garbage]: A program that sends an invalid message is disconnected, nothing after
// it is read, and the log names it and the reason: `connection 1 (process 1, user 0): sent no
// message: ` and the reason.
TEST_F(BadProgram, IsDisconnectedForAnInvalidMessage) {
  const std::string right = lm::encode(rightRequest());
  std::string unknownType = right;
  unknownType[0] = static_cast<char>(0xF8);
  struct Case {
    const char* what;
    std::string datagram;
  };
  const Case cases[] = {
      {"truncated", right.substr(0, right.size() - 1)},
      {"trailing bytes", right + '\0'},
      {"a key twice", right + right},
      {"an unknown type", unknownType},
      {"a bool that is neither", right + std::string("\x00\xff\x00\x04\x02", 5)},
      {"too long", right + std::string(lm::maxDatagram, '\0')},
  };
  for (const Case& bad : cases) {
    SCOPED_TRACE(bad.what);
    testing::internal::CaptureStdout();
    Program program = connectAdministrator();
    program.sendBytes(bad.datagram);
    program.send(rightRequest());
    settle();
    EXPECT_TRUE(program.isDisconnected());
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find(" (process 1, user 0): sent no message: "), std::string::npos) << log;
    EXPECT_TRUE(rules.requests.empty()) << "what follows is not read";
    expectThatOthersAreServed();
    rules.requests.clear();
  }
}

// Promise: A program that sends an empty datagram is disconnected: `sent an empty datagram`.
TEST_F(BadProgram, IsDisconnectedForAnEmptyDatagram) {
  testing::internal::CaptureStdout();
  Program program = connectAdministrator();
  program.sendBytes("");
  settle();
  EXPECT_TRUE(program.isDisconnected());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "connection 1 (process 1, user 0): sent an empty datagram\n");
}

// Promise: The orderly end of a program is not logged.
TEST_F(BadProgram, IsNotReportedForItsEnd) {
  testing::internal::CaptureStdout();
  Program program = connectAdministrator();
  program.close();
  settle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// Promise: A message that is neither request, notification nor reply disconnects its sender: `sent
// neither request, notification nor reply`.
TEST_F(BadProgram, IsDisconnectedForAMessageOfNoKind) {
  struct Case {
    const char* what;
    uint32_t without;
    bool asReply;
    bool replyField;
  };
  const Case cases[] = {
      {"a request without command", lm::key::command, false, false},
      {"a request without serial", lm::key::serial, false, false},
      {"a request with a reply field", 0, true, false},
      {"a reply without serial", lm::key::serial, true, true},
      {"without destination and source", lm::key::destination, false, false},
  };
  for (const Case& bad : cases) {
    SCOPED_TRACE(bad.what);
    testing::internal::CaptureStdout();
    lm::message m;
    if (bad.without != lm::key::destination) m.insert_u32_array(lm::key::destination, {20, 5});
    if (bad.without != lm::key::command) m.insert_u32(lm::key::command, lm::cmd::list);
    if (bad.without != lm::key::serial) m.insert_u32(lm::key::serial, 1);
    if (bad.asReply) m.insert_bool(lm::key::isReply, bad.replyField);
    Program program = connectAdministrator();
    program.send(m);
    settle();
    EXPECT_TRUE(program.isDisconnected());
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("sent neither request, notification nor reply"), std::string::npos) << log;
    EXPECT_TRUE(rules.requests.empty());
  }
}

// Its receiver would carry it out as a request.
// Promise [notify-destination]: A notification with a destination, even an empty one, is not
// delivered: its receiver would carry it out as a request. Its sender is disconnected.
TEST_F(BadProgram, IsDisconnectedForANotificationWithAnEmptyDestination) {
  Program victim = connectAdministrator();
  subscribe(victim, lm::cmd::set, {gateway, 0});
  testing::internal::CaptureStdout();
  Program program = connect(gatewayUser);
  lm::message m;
  m.insert_u32_array(lm::key::destination, {});
  program.notify(lm::cmd::set, 0, m);
  settle();
  EXPECT_TRUE(program.isDisconnected());
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("sent neither request, notification nor reply"), std::string::npos) << log;
  EXPECT_FALSE(victim.receive());
}

// Promise: Random bytes from a program do no harm to others.
TEST_F(BadProgram, ThatSendsRandomBytesHarmsNoOtherProgram) {
  testing::internal::CaptureStdout();
  std::mt19937 random(1);
  const std::string right = lm::encode(rightRequest());
  for (int i = 0; i < 300; ++i) {
    Program program = connect(gatewayUser);
    std::string datagram = right;
    for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
      datagram[random() % datagram.size()] = static_cast<char>(random());
    }
    program.sendBytes(datagram);
    settle(3);
    program.close();
    settle(3);
  }
  testing::internal::GetCapturedStdout();
  expectThatOthersAreServed();
}

// Promise [broker-unread]: A program that does not read is disconnected when more than 4 MiB wait
// for it, `does not read what it is sent`, and no other program waits for it.
TEST_F(BadProgram, ThatDoesNotReadIsDisconnectedAndDelaysNoOther) {
  testing::internal::CaptureStdout();
  Program deaf = connectAdministrator();
  subscribe(deaf, lm::cmd::changed, {20, 0});
  Program reader = connectAdministrator();
  subscribe(reader, lm::cmd::changed, {20, 0});
  const lm::message large = fields(std::string(100'000, 'x'));
  constexpr int inQueue = 4 * 1024 * 1024 / 100'000;
  constexpr int inKernel = 8;  // at most
  for (int i = 0; i < inQueue; ++i) {
    broker.notify(lm::cmd::changed, {20, 0}, large);
    settle(2);
    EXPECT_TRUE(reader.receive());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "there is still room";
  testing::internal::CaptureStdout();
  for (int i = 0; i < inKernel; ++i) {
    broker.notify(lm::cmd::changed, {20, 0}, large);
    settle(2);
    EXPECT_TRUE(reader.receive());
  }
  while (deaf.receive()) {
  }
  EXPECT_TRUE(deaf.isDisconnected());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "connection 1 (process 1, user 0): does not read what it is sent\n");
}

// Promise: A program that reads late gets everything in order.
TEST_F(BadProgram, ThatReadsLateGetsEverythingInOrder) {
  Program late = connectAdministrator();
  subscribe(late, lm::cmd::changed, {20, 0});
  constexpr int many = 400;
  for (int round = 0; round < 3; ++round) {  // more than may wait at a time
    for (int i = 0; i < many; ++i) {
      broker.notify(lm::cmd::changed, {20, 0}, fields(std::to_string(i) + std::string(8000, ' ')));
    }
    for (int i = 0; i < many; ++i) {
      auto news = late.receive();
      if (!news) {
        settle();
        news = late.receive();
      }
      ASSERT_TRUE(news) << i;
      EXPECT_EQ(std::stoi(news->get_string(7)), i);
    }
    settle();
    EXPECT_FALSE(late.isDisconnected());
  }
}

// Promise: What a program sent before it ended without reading is handled, and its end is not
// reported.
TEST_F(BadProgram, ThatEndsWithoutReadingIsDrainedAndForgotten) {
  testing::internal::CaptureStdout();
  Program deaf = connectAdministrator();
  subscribe(deaf, lm::cmd::changed, {20, 0});
  const lm::message large = fields(std::string(100'000, 'x'));
  for (int i = 0; i < 10; ++i) broker.notify(lm::cmd::changed, {20, 0}, large);
  deaf.send(rightRequest());
  deaf.close();
  settle();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(rules.requests.size(), 1U);
  EXPECT_EQ(rules.ended, std::vector<uint64_t>{1});
}

// Promise: A program whose socket fails is disconnected with the system's error text, and the
// others are served.
TEST_F(BadProgram, IsDisconnectedWhenItsSocketFails) {
  Program program = connectAdministrator();
  program.send(rightRequest());
  testing::internal::CaptureStdout();
  whileRefused({SCMP_SYS(recvfrom)}, EIO, [&] { settle(); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "connection 1 (process 1, user 0): Input/output error\n");
  EXPECT_TRUE(program.isDisconnected());
  expectThatOthersAreServed();
}

TEST_F(BadProgram, GetsLongMessagesAlsoWithoutPrivilege) {
  std::optional<Program> reader;
  whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, SO_SNDBUFFORCE}, EPERM,
               [&] { reader = connectAdministrator(); });
  subscribe(*reader, lm::cmd::changed, {20, 0});
  const lm::message large = fields(std::string(100'000, 'x'));
  for (int i = 0; i < 5; ++i) broker.notify(lm::cmd::changed, {20, 0}, large);
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(reader->receive()) << i;
    settle();
  }
}

// Also proves [broker-unread].
TEST_F(BadProgram, ThatIsAServiceAndDoesNotReadDelaysNoOther) {
  testing::internal::CaptureStdout();
  Program deaf = connectGateway();
  Program client = connectAdministrator();
  const lm::message large = fields(std::string(100'000, 'x'));
  std::string error;
  for (int i = 0; i < 60 && error.empty(); ++i) {
    client.ask({gateway, 0}, someCommand, large);
    settle(3);
    error = client.error();
  }
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, "service unavailable");
}

}  // namespace
}  // namespace lumen::test
