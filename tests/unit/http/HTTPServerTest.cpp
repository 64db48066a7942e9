#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "http/HTTPServerFixture.h"
#include "support/RefusedCall.h"

using namespace std::chrono_literals;

// Promise [one-request]: One connection carries one request: it gets one reply and is closed.
TEST_F(HTTPServerTest, AnswersARequestAndCloses) {
  Client client;
  client.send("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(logged([&] { untilClosed(client); }), "");
  EXPECT_EQ(client.received, reply);
  EXPECT_EQ(gateway.asked, std::vector<std::string>{"GET|/x|"});
  EXPECT_EQ(gateway.askedOn, gateway.device.get());
  EXPECT_EQ(server.openConnections(), 0U);
}

// Promise: A request may come in any number of segments and is answered when the last byte has
// come.
TEST_F(HTTPServerTest, AnswersOnceTheLastSegmentHasCome) {
  Client client;
  for (const char* segment : {"PO", "ST /x HTTP/1.1\r", "\nContent-Length: 5\r\n\r\nab", "cd"}) {
    client.send(segment);
    readAll();
    EXPECT_TRUE(gateway.asked.empty()) << segment;
  }
  client.send("e");
  untilClosed(client);
  EXPECT_EQ(gateway.asked, std::vector<std::string>{"POST|/x|abcde"});
}

// Promise [slow-client]: Many clients are served at a time, and a slow one delays no other.
TEST_F(HTTPServerTest, ServesManyClientsAtATime) {
  Client slow;
  slow.send("GET /slow HTTP/1.1\r\n");
  accept();
  Client quick;
  quick.send("GET /quick HTTP/1.1\r\n\r\n");
  untilClosed(quick);
  slow.send("\r\n");
  untilClosed(slow);
  EXPECT_EQ(gateway.asked, (std::vector<std::string>{"GET|/quick|", "GET|/slow|"}));
}

// Promise: Of two requests on one connection the first is answered and the second is not looked at.
TEST_F(HTTPServerTest, AnswersOnlyTheFirstOfTwoRequests) {
  Client client;
  client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
  EXPECT_EQ(gateway.asked, std::vector<std::string>{"GET|/1|GET /2 HTTP/1.1\r\n\r\n"});
}

// Promise: A reply arrives whole although the client has sent bytes that are never read.
TEST_F(HTTPServerTest, DeliversTheReplyAlthoughBytesAreLeftUnread) {
  Client client;
  client.send("GET /1 HTTP/1.1\r\n\r\n");
  client.send(std::string(20000, 'x'));
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
  EXPECT_NE(client.error, ECONNRESET);
}

// Promise [request-too-long]: A body one byte longer than its `CONTENT-LENGTH` is never answered
// and times out.
TEST_F(HTTPServerTest, NeverAnswersABodyThatIsTooLong) {
  expectNoAnswer("POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcde");
}

TEST_F(HTTPServerTest, NeverAnswersAfterALineWithoutAColon) {
  expectNoAnswer("GET /x HTTP/1.1\r\nnonsense\r\n\r\n");
}

// Promise [request-time]: A whole request has ten seconds from the moment the connection is
// accepted; then the connection is closed without a reply and `http request timeout` is logged.
// Also proves [request-time-fixed].
TEST_F(HTTPServerTest, GivesARequestTenSecondsFromTheAccept) {
  Client client;
  accept();
  pass(9999ms);
  EXPECT_EQ(server.openConnections(), 1U);
  client.send("GET /x HTTP/1.1\r\n");
  readAll();
  EXPECT_EQ(logged([&] { pass(1ms); }), "http request timeout\n");
  EXPECT_EQ(server.openConnections(), 0U);
  EXPECT_TRUE(client.receive());
}

TEST_F(HTTPServerTest, AnswersARequestThatArrivedWhileAnotherOneTookTenSeconds) {
  Client quick;
  accept(1);
  Client slow;
  accept(2);
  slow.send("GET /slow HTTP/1.1\r\n\r\n");
  gateway.work = [&] {
    gateway.work = {};
    quick.send("GET /quick HTTP/1.1\r\n\r\n");
    clock.advance(10s);
  };
  EXPECT_EQ(logged([&] { untilClosed(quick); }), "");
  EXPECT_EQ(quick.received, reply);
}

// Promise: An answered request never times out.
TEST_F(HTTPServerTest, ForgetsTheTimeLimitOfAnAnsweredRequest) {
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(logged([&] { pass(20s); }), "");
}

// Promise: A client that closes or resets its connection is dropped without a line in the log.
TEST_F(HTTPServerTest, SilentlyDropsAClientThatClosesOrResets) {
  Client closing;
  Client resetting;
  accept(2);
  closing.send("GET /x");
  readAll();
  const std::string log = logged([&] {
    closing.close();
    resetting.reset();
    turnUntil([&] { return server.openConnections() == 0; });
    pass(20s);
  });
  EXPECT_EQ(log, "");
  EXPECT_TRUE(gateway.asked.empty());
}

TEST_F(HTTPServerTest, AcceptsNothingAndDoesNotBlockWhenNoClientWaits) {
  EXPECT_EQ(logged([&] { server.acceptHttp(listener.get()); }), "accept failed\n");
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
}

TEST_F(HTTPServerTest, RefusesAListenerFromWhichAcceptCouldBlock) {
  const auto prepared = [this] { EXPECT_FALSE(HTTPServer::prepareListener(listener.get())); };
  std::string log;
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}, EPERM, [&] { log = logged(prepared); });
  EXPECT_EQ(log, "fcntl O_NONBLOCK: Operation not permitted\n");
}

// Also proves [loop-idle-listener].
TEST_F(HTTPServerTest, PausesWhileItHasNoDescriptorForAClient) {
  const Client client;
  EXPECT_EQ(logged([&] {
              whileRefused({SCMP_SYS(accept4)}, EMFILE, [&] {
                for (int turn = 0; turn < 20; ++turn) loop.turn(0ms);
              });
            }),
            "accept failed\naccept failed\n");
  EXPECT_EQ(loop.nextDue(), clock.now() + 100ms);
}

// Promise: A connection on a listening socket that belongs to no interface is the line `oo jeaaa`
// and the end of the process with status 1.
TEST_F(HTTPServerTest, EndsTheProcessForAListenerThatBelongsToNoInterface) {
  const Client client;
  gateway.listener = -1;
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        server.acceptHttp(listener.get());
      },
      testing::ExitedWithCode(1), "^oo jeaaa\n$");
}

// Promise: When an accept fails, it does not matter whose the listening socket was.
TEST_F(HTTPServerTest, AcceptsBeforeItLooksForTheInterface) {
  gateway.listener = -1;
  EXPECT_EQ(logged([&] { server.acceptHttp(listener.get()); }), "accept failed\n");
}

// Promise: A readable socket that is no connection is the line `fatal error: could not find http
// conn` and the end of the process with status 1.
TEST_F(HTTPServerTest, EndsTheProcessForAnUnknownConnection) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        server.readHttp(listener.get());
      },
      testing::ExitedWithCode(1), "^fatal error: could not find http conn\n$");
}

// Promise: A reply is written once: when the client does not take all of it, `write error` is
// logged and the connection is closed.
// Promise: A client that does not read does not delay the others.
TEST_F(HTTPServerTest, DoesNotWaitForAClientThatDoesNotRead) {
  gateway.body = std::string(12UL << 20, 'x');
  Client client(4096);
  client.send("GET /x HTTP/1.1\r\n\r\n");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }), "write error\n");
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, 30s);  // without the limit of the write it would take for ever
  EXPECT_EQ(server.openConnections(), 0U);
}

TEST_F(HTTPServerTest, WritesAReplyOnlyOnce) {
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  std::string log;
  alarm(10);  // ends the test if it tries again and again
  whileRefused({SCMP_SYS(sendto)}, EINTR,
               [&] { log = logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }); });
  alarm(0);
  EXPECT_EQ(log, "write error\n");
  untilClosed(client);
  EXPECT_EQ(client.received, "");
}

// Promise: A reply that the send buffer does not take at once is cut off when the buffer cannot be
// enlarged or the write limited in time: the line `setsockopt SO_SNDBUF: ` or `setsockopt
// SO_SNDTIMEO: ` and the error text, then `write error`.
TEST_F(HTTPServerTest, DoesNotWriteMoreWhenTheWriteCouldBlock) {
  makeSendBufferSmall();
  gateway.body = std::string(200000, 'x');
  Client client(4096);
  client.send("GET /x HTTP/1.1\r\n\r\n");
  std::string log;
  whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, SO_SNDTIMEO}, EPERM,
               [&] { log = logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }); });
  EXPECT_EQ(log, "setsockopt SO_SNDTIMEO: Operation not permitted\nwrite error\n");
  untilClosed(client);
  EXPECT_LT(client.received.size(), gateway.body.size());
}

// Promise: A long description reaches a client with a small receive buffer whole.
TEST_F(HTTPServerTest, WritesALargeDescriptionAtOnceToAClientThatDoesNotRead) {
  makeSendBufferSmall();
  gateway.body = std::string(200000, 'x');
  Client client(4096);
  client.send("GET /x HTTP/1.1\r\n\r\n");
  EXPECT_EQ(logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }), "");
  untilClosed(client);
  EXPECT_EQ(client.received.size(), 19 + gateway.body.size());
}

// Promise: A client that is gone before its reply does no harm to others.
TEST_F(HTTPServerTest, SurvivesAClientThatLeavesBeforeTheReply) {
  Client client;
  accept();
  client.send("GET /x HTTP/1.1\r\n\r\n");
  client.close();
  turnUntil([&] { return server.openConnections() == 0; });
  EXPECT_EQ(gateway.asked.size(), 1U);
}

// Promise: A connection outlives its interface: what it asks for is answered with the address that
// the interface has, or had last.
TEST_F(HTTPServerTest, KeepsTheInterfaceAsLongAsTheConnection) {
  Client client;
  accept();
  const std::weak_ptr<ServedInterface> device = gateway.device;
  gateway.device = std::make_shared<FakeInterface>();
  EXPECT_FALSE(device.expired());
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_TRUE(device.expired());
}

TEST_F(HTTPServerTest, ClosesItsConnectionsOnExec) {
  const Client client;
  const int lowestFree = dup(listener.get());
  close(lowestFree);
  accept();
  EXPECT_EQ(fcntl(lowestFree, F_GETFD), FD_CLOEXEC);
}

// Promise: When the daemon ends, every connection is closed.
TEST_F(HTTPServerTest, ClosesEveryConnectionAtItsEnd) {
  Client client;
  {
    HTTPServer other(gateway);
    watch.start<&HTTPServer::acceptHttp>(listener.get(), other, lm::watchAccept);
    turnUntil([&] { return other.openConnections() == 1; });
    watch.stop();
  }
  EXPECT_TRUE(client.receive());
  EXPECT_EQ(logged([&] { pass(20s); }), "");
}

// Promise: Noise gets no reply, and the next request is answered.
TEST_F(HTTPServerTest, DropsRandomBytesAndAnswersTheNextRequest) {
  std::string noise;
  for (unsigned i = 0; i < 5000; ++i) noise.push_back(static_cast<char>(i * 7919U % 251));
  Client stranger;
  stranger.send(noise);
  accept();
  readAll();
  pass(10s);
  EXPECT_TRUE(stranger.receive());
  EXPECT_EQ(stranger.received, "");
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
}
