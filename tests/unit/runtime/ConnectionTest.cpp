#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Connection.h"
#include "lumen/runtime/SocketTransport.h"
#include "platform/wire/Broker.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/RefusedCall.h"
#include "support/Sockets.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

using test::describe;

/// The other side of the connection, played by the test on a real socket.
class ConnectionTest : public testing::Test {
 protected:
  static message request(uint32_t value) {
    message m;
    m.insert_u32_array(key::destination, {20, 5});
    m.insert_u32(1, value);
    return m;
  }
  static message reply(uint32_t serial, uint32_t value) {
    message m;
    m.insert_u32(1, value);
    m.insert_u32(key::serial, serial);
    m.insert_bool(key::isReply, true);
    return m;
  }
  static message notification(uint32_t value) {
    message m;
    m.insert_u32(1, value);
    m.insert_u32_array(key::source, {20, 0});
    m.insert_u32(key::command, cmd::changed);
    return m;
  }

  void platformSends(const message& m) { platformSends(encode(m)); }
  void platformSends(const std::string& datagram) {
    ASSERT_TRUE(test::writeText(sockets_.peer.get(), datagram));
  }
  std::string platformReceives() {
    std::string datagram(maxDatagram, '\0');
    const ssize_t got = read(sockets_.peer.get(), datagram.data(), datagram.size());
    if (got < 0) return "nothing";
    const auto m = decode(std::string_view(datagram).substr(0, static_cast<size_t>(got)));
    return m ? describe(*m) : m.why();
  }
  std::string takes() {
    connection_.progress();
    const auto m = connection_.take();
    return m ? describe(*m) : "nothing";
  }

  const SystemClock clock_{};
  test::SocketPair sockets_{SOCK_SEQPACKET};
  Connection connection_{clock_, std::make_unique<SocketTransport>(std::move(sockets_.ours))};
};

// Promise [request-fields]: A request carries its destination path (`0x88ff0001`), its own fields,
// its source path (`0x88ff0002`), its serial (`0x08ff0003`) and its command (`0x08ff0007`).
TEST_F(ConnectionTest, AnExchangeGivesTheReplyOfItsSerial) {
  platformSends(reply(1, 42));
  EXPECT_EQ(connection_.exchange(request(7), cmd::addObject, 5s, 3).get_u32(1), 42U);
  EXPECT_EQ(platformReceives(),
            "{u32[] 0xff0001=[20 5], u32 0x1=7, u32[] 0xff0002=[0 3], u32 0xff0003=1, "
            "u32 0xff0007=16646149}");
}

// Promise: Serials rise, so that a reply belongs to one request.
TEST_F(ConnectionTest, SerialsRise) {
  platformSends(reply(1, 1));
  platformSends(reply(2, 2));
  platformSends(reply(3, 3));
  for (uint32_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(connection_.exchange(request(7), 1, 5s).get_u32(1), i);
  }
}

// Promise [exchange-limit]: An exchange waits no longer than its limit in milliseconds, then gives
// the error `no answer in time`.
TEST_F(ConnectionTest, AnExchangeWaitsNoLongerThanItsLimit) {
  const auto start = clock_.now();
  const message answer = connection_.exchange(request(7), 1, 40ms);
  EXPECT_EQ(getError(answer), "no answer in time");
  EXPECT_GE(clock_.now() - start, 40ms);
}

TEST_F(ConnectionTest, ACallFailsOnlyWhenThereIsNoReply) {
  using namespace std::chrono_literals;
  EXPECT_EQ(lumen::whyNot(connection_.call(request(7), 1, 1ms)), "no answer in time");
  message refused = errorMsg(errorRefused, "no answer in time");
  refused.insert_u32(key::serial, 2);
  refused.insert_bool(key::isReply, true);
  platformSends(refused);
  const lumen::Result<message> reply = connection_.call(request(7), 1, 5s);
  ASSERT_TRUE(reply) << "the platform has answered";
  EXPECT_EQ(getError(*reply), "no answer in time");
  message large = request(7);
  large.insert_string(2, std::string(maxDatagram, 'x'));
  EXPECT_EQ(lumen::whyNot(connection_.call(large, 1, 5s)), "") << "it is refused here";
  sockets_.peer.reset();
  EXPECT_EQ(lumen::whyNot(connection_.call(request(7), 1, 60s)), "connection ended");
}

// Promise [exchange-late]: A reply that comes after the limit is dropped, and never taken for the
// reply to the next request.
TEST_F(ConnectionTest, AReplyThatComesTooLateIsDropped) {
  EXPECT_TRUE(isError(connection_.exchange(request(7), 1, 1ms)));
  platformSends(reply(1, 41));
  platformSends(reply(2, 42));
  EXPECT_EQ(connection_.exchange(request(7), 1, 5s).get_u32(1), 42U);
  EXPECT_EQ(connection_.arrived(), 0U);
}

// Promise [cancel-late]: A request that is not answered in time is cancelled, unless its sender
// lets it stand.
TEST_F(ConnectionTest, ARequestThatIsGivenUpIsCancelled) {
  EXPECT_TRUE(isError(connection_.exchange(request(7), cmd::addObject, 1ms, 3)));
  EXPECT_NE(platformReceives(), "nothing");
  EXPECT_EQ(platformReceives(), "{u32 0xff0003=1, u32[] 0xff0002=[0 3], u32 0xff0007=22}");
  EXPECT_EQ(platformReceives(), "nothing");
}

TEST_F(ConnectionTest, ARequestThatStandsIsNotCancelled) {
  EXPECT_TRUE(isError(connection_.exchange(request(7), cmd::addObject, 1ms, 3, GivenUp::stands)));
  EXPECT_NE(platformReceives(), "nothing");
  EXPECT_EQ(platformReceives(), "nothing");
}

TEST_F(ConnectionTest, ARequestThatIsAnsweredInTimeIsNotCancelled) {
  platformSends(reply(1, 42));
  EXPECT_EQ(connection_.exchange(request(7), cmd::addObject, 0ms).get_u32(1), 42U);
  EXPECT_NE(platformReceives(), "nothing");
  EXPECT_EQ(platformReceives(), "nothing");
}

// Promise [cancel-program]: A request that the broker says is cancelled is not dispatched; when it
// has been, what it changed is undone, once, and a refusal of that is logged.
TEST_F(ConnectionTest, ARequestThatWasCancelledBeforeItWasTakenIsGone) {
  message first = request(1);
  first.insert_u32(key::serial, 5);
  message second = request(2);
  second.insert_u32(key::serial, 6);
  message cancellation;
  cancellation.insert_u32(key::command, broker::cmd::cancel);
  cancellation.insert_u32_array(key::source, {service::broker, 0});
  cancellation.insert_u32(key::serial, 5);
  platformSends(first);
  platformSends(second);
  platformSends(cancellation);
  EXPECT_EQ(takes(), describe(second));
  EXPECT_EQ(takes(), "nothing");
  EXPECT_EQ(platformReceives(), "nothing") << "the broker has answered it";
}

TEST_F(ConnectionTest, OnlyTheBrokerCancels) {
  message first = request(1);
  first.insert_u32(key::serial, 5);
  message cancellation;
  cancellation.insert_u32(key::command, broker::cmd::cancel);
  cancellation.insert_u32_array(key::source, {20, 0});
  cancellation.insert_u32(key::serial, 5);
  platformSends(first);
  platformSends(cancellation);
  EXPECT_EQ(takes(), describe(first));
}

// Promise: Other messages that arrive while a program waits in an exchange are queued, and
// dispatched afterwards in their order.
TEST_F(ConnectionTest, WhatArrivesDuringAnExchangeIsQueuedInOrder) {
  platformSends(notification(1));
  platformSends(notification(2));
  platformSends(reply(1, 42));
  platformSends(notification(3));
  EXPECT_EQ(connection_.exchange(request(7), 1, 5s).get_u32(1), 42U);
  EXPECT_EQ(connection_.arrived(), 2U) << "the third came after the reply";
  EXPECT_EQ(takes(), describe(notification(1)));
  EXPECT_EQ(takes(), describe(notification(2)));
  EXPECT_EQ(takes(), describe(notification(3)));
  EXPECT_EQ(takes(), "nothing");
}

// Promise: An exchange fails at once with `connection ended` when the platform is gone.
TEST_F(ConnectionTest, ExchangesFailAtOnceWhenThePlatformIsGone) {
  sockets_.peer.reset();
  EXPECT_EQ(getError(connection_.exchange(request(7), 1, 60s)), "connection ended");
  EXPECT_TRUE(connection_.ended());
  EXPECT_EQ(getError(connection_.exchange(request(7), 1, 60s)), "connection ended");
}

// Promise: What the platform sent before it ended is still dispatched.
TEST_F(ConnectionTest, WhatThePlatformSentBeforeItEndedIsStillReceived) {
  platformSends(notification(1));
  sockets_.peer.reset();
  EXPECT_TRUE(isError(connection_.exchange(request(7), 1, 60s)));
  EXPECT_EQ(takes(), describe(notification(1)));
}

// Promise: An invalid message from the platform ends the program normally, and the reason is
// logged: `platform: invalid message: ` and the reason.
TEST_F(ConnectionTest, ADatagramThatIsNoMessageEndsIt) {
  platformSends(std::string("\x18\0\0\x01", 4));
  platformSends(notification(1));
  const test::LogCapture log;
  EXPECT_EQ(takes(), "nothing");
  EXPECT_EQ(log.text(), "platform: invalid message: unknown type: 0x18000001\n");
  EXPECT_TRUE(connection_.ended());
}

TEST_F(ConnectionTest, ADatagramThatIsTooLongEndsIt) {
  message m;
  m.insert_string(1, std::string(maxDatagram - 7, 'x'));
  platformSends(m);
  const test::LogCapture log;
  connection_.progress();
  EXPECT_EQ(log.text(), "platform: invalid message: too long\n");
  EXPECT_TRUE(connection_.ended());
}

// Promise [exchange-size]: A request that no datagram can hold is not sent and gives the error
// `message too long`.
TEST_F(ConnectionTest, ARequestThatIsTooLongIsRefusedHere) {
  message m = request(7);
  m.insert_string(2, std::string(maxDatagram, 'x'));
  EXPECT_EQ(getError(connection_.exchange(m, 1, 60s)), "message too long");
  EXPECT_EQ(platformReceives(), "nothing");
  EXPECT_FALSE(connection_.ended());
}

// Promise: A posted request and a notification that no datagram can hold are not sent, which is
// logged: `platform: request 16646149 is too long`, `platform: notification 16646155 is too long`.
TEST_F(ConnectionTest, APostOrNotificationThatIsTooLongIsLogged) {
  message m = request(7);
  m.insert_string(2, std::string(maxDatagram, 'x'));
  const test::LogCapture log;
  connection_.post(m, cmd::addObject, 0);
  connection_.notify(m, cmd::changed, 0);
  EXPECT_EQ(
      log.text(),
      "platform: request 16646149 is too long\nplatform: notification 16646155 is too long\n");
  EXPECT_EQ(platformReceives(), "nothing");
  EXPECT_FALSE(connection_.ended());
}

// Promise: A notification carries its source path and its command, and no serial.
// Promise: Subscribing, notifying and handing an undo message to the history do not wait, and the
// replies to them are dropped.
TEST_F(ConnectionTest, PostingAndNotifyingNeverBlock) {
  connection_.post(request(7), cmd::addObject, 0);
  connection_.notify(request(8), cmd::changed, 2);
  EXPECT_EQ(platformReceives(),
            "{u32[] 0xff0001=[20 5], u32 0x1=7, u32[] 0xff0002=[0 0], u32 0xff0003=1, "
            "u32 0xff0007=16646149}");
  EXPECT_EQ(platformReceives(),
            "{u32[] 0xff0001=[20 5], u32 0x1=8, u32[] 0xff0002=[0 2], u32 0xff0007=16646155}");
}

TEST_F(ConnectionTest, SendsNothingToAPlatformThatIsGone) {
  sockets_.peer.reset();
  connection_.progress();
  const test::LogCapture log;
  connection_.post(request(7), cmd::addObject, 0);
  connection_.notify(request(8), cmd::changed, 2);
  connection_.reply(3, request(9));
  EXPECT_EQ(log.text(), "");
  EXPECT_FALSE(connection_.wantsToSend());
}

TEST_F(ConnectionTest, QueuesWhatTheSystemHasNoRoomFor) {
  for (const int error : {ENOBUFS, ENOMEM}) {
    whileRefused({SCMP_SYS(sendto)}, error,
                 [this] { connection_.notify(request(8), cmd::changed, 2); });
    EXPECT_TRUE(connection_.wantsToSend());
    EXPECT_FALSE(connection_.ended());
    connection_.progress();
    EXPECT_FALSE(connection_.wantsToSend());
    EXPECT_NE(platformReceives(), "nothing");
  }
}

TEST_F(ConnectionTest, WhatWasNotSentInTimeTakesNoRoom) {
  message large = request(7);
  large.insert_string(2, std::string(100'000, 'x'));
  whileRefused({SCMP_SYS(sendto)}, ENOBUFS, [&] {
    // More than 4 MiB together, which may not be queued.
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(getError(connection_.exchange(large, 1, 0ms)), "no answer in time");
    }
  });
  EXPECT_FALSE(connection_.ended());
  EXPECT_EQ(platformReceives(), "nothing");
}

TEST_F(ConnectionTest, CanBeWaitedFor) {
  pollfd arrival{connection_.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&arrival, 1, 0), 0);
  platformSends(notification(1));
  EXPECT_EQ(poll(&arrival, 1, 5000), 1);
}

TEST_F(ConnectionTest, TheReplyToAPostIsDropped) {
  connection_.post(request(7), cmd::addObject, 0);
  platformSends(reply(1, 1));
  EXPECT_EQ(takes(), "nothing");
}

// Promise [answer-fields]: An answer carries its own fields, the serial of its request and the
// reply field (`0x00ff0004`), and no path and no command.
TEST_F(ConnectionTest, AnswersCarryTheSerialAndNoPath) {
  connection_.reply(77, request(8));
  EXPECT_EQ(platformReceives(), "{u32 0x1=8, u32 0xff0003=77, bool 0xff0004=1}");
}

// Promise: An answer that no datagram can hold becomes the error `answer too long`.
TEST_F(ConnectionTest, AnAnswerThatIsTooLongBecomesAnError) {
  message answer;
  answer.insert_string(1, std::string(maxDatagram, 'x'));
  connection_.reply(7, answer);
  EXPECT_EQ(platformReceives(),
            "{u32 0xff0008=16646153, string 0xff0009=\"answer too long\", u32 0xff0003=7, "
            "bool 0xff0004=1}");
}

class SlowPlatform : public ConnectionTest {
 protected:
  /// Fills the socket until something is queued.
  int fill() {
    message m = request(7);
    m.insert_string(2, std::string(50'000, 'x'));
    int sent = 0;
    while (!connection_.wantsToSend() && !connection_.ended()) {
      connection_.post(m, 1, 0);
      ++sent;
    }
    return sent;
  }
  int drain() {
    int count = 0;
    while (platformReceives() != "nothing") {
      ++count;
      connection_.progress();
    }
    return count;
  }
};

// Promise: A program queues what a slow platform does not read, and sends it in order once there is
// room.
TEST_F(SlowPlatform, EventuallyGetsEverything) {
  int sent = fill();
  connection_.notify(message(), cmd::changed, 0);
  ++sent;
  EXPECT_FALSE(connection_.ended());
  EXPECT_EQ(drain(), sent);
  EXPECT_FALSE(connection_.wantsToSend());
}

// Promise: A request that is still queued when its sender gives up is never sent.
TEST_F(SlowPlatform, DoesNotGetARequestWhoseSenderHasGivenUp) {
  const int sent = fill();
  EXPECT_EQ(getError(connection_.exchange(request(8), 1, 20ms)), "no answer in time");
  EXPECT_EQ(drain(), sent);
}

// Promise [exchange-unread]: When more than 4 MiB are queued for the platform the program gives the
// connection up: `platform: does not read`.
TEST_F(SlowPlatform, IsGivenUpWhenTooMuchWaits) {
  fill();
  const test::LogCapture log;
  message m = request(7);
  m.insert_string(2, std::string(100'000, 'x'));
  for (int i = 0; i < 40; ++i) connection_.post(m, 1, 0);
  EXPECT_FALSE(connection_.ended()) << "4 MiB may wait";
  for (int i = 0; i < 2; ++i) connection_.post(m, 1, 0);
  EXPECT_TRUE(connection_.ended());
  EXPECT_EQ(log.text(), "platform: does not read\n");
}

class PlatformSocket : public testing::Test {
 protected:
  /// Listens at `name` in `directory`, whose path may have any length.
  static Fd listenAt(const std::string& directory, const std::string& name) {
    Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const std::string before = std::filesystem::current_path();
    std::filesystem::current_path(directory);
    const bool done = bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                      listen(fd.get(), 1) == 0;
    std::filesystem::current_path(before);
    return done ? std::move(fd) : Fd();
  }

  test::TempDir dir_;
};

// Promise: A socket is reached whatever the length of its path.
TEST_F(PlatformSocket, IsConnectedByPath) {
  const Fd listener = listenAt(dir_.path(), "lumen.sock");
  ASSERT_TRUE(listener.valid());
  EXPECT_TRUE(SocketTransport::connect(dir_.file("lumen.sock")));
}

TEST_F(PlatformSocket, MayHaveALongPath) {
  std::string directory = dir_.path();
  for (int i = 0; i < 10; ++i) directory += "/" + std::string(50, 'd');
  std::filesystem::create_directories(directory);
  const Fd listener = listenAt(directory, "lumen.sock");
  ASSERT_TRUE(listener.valid());
  EXPECT_TRUE(SocketTransport::connect(directory + "/lumen.sock"));
}

// Promise: When a socket cannot be reached, the system's error text is reported.
TEST_F(PlatformSocket, ThatIsMissingIsReportedWithItsError) {
  EXPECT_FALSE(SocketTransport::connect(dir_.file("lumen.sock")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(SocketTransport::connect(dir_.file(std::string(200, 'd') + "/lumen.sock")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(SocketTransport::connect(dir_.file(std::string(200, 'n'))));
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(PlatformSocket, ThatTheSystemRefusesIsReportedWithItsError) {
  const Fd listener = listenAt(dir_.path(), "lumen.sock");
  for (const RefusedCall& call :
       {RefusedCall{SCMP_SYS(socket)}, RefusedCall{SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}}) {
    whileRefused(call, EMFILE, [this] {
      EXPECT_FALSE(SocketTransport::connect(dir_.file("lumen.sock")));
      EXPECT_EQ(errno, EMFILE);
    });
  }
}

TEST_F(PlatformSocket, WithoutAListenerIsReportedWithItsError) {
  (void)listenAt(dir_.path(), "lumen.sock");
  EXPECT_FALSE(SocketTransport::connect(dir_.file("lumen.sock")));
  EXPECT_EQ(errno, ECONNREFUSED);
}

}  // namespace
}  // namespace lm
