#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "http/HTTPServer.h"
#include "http/Server.h"
#include "http/Sockets.h"
#include "http/Text.h"
#include "lumen/runtime/EventLoop.h"
#include "support/ManualClock.h"
#include "support/PrivateNetwork.h"
#include "support/RefusedCall.h"

using namespace std::chrono_literals;

namespace {

class FakeInterface : public ServedInterface {
 public:
  [[nodiscard]] uint32_t ipAddress() const override { return strtoip("127.0.0.1"); }
};

/// Serves one listening socket and answers every request alike, keeping what it was asked.
class FakeGateway : public RequestHandler {
 public:
  std::shared_ptr<ServedInterface> findListener(int listenFd) override {
    return listenFd == listener ? device : nullptr;
  }

  HTTPMessage handleHttpRequest(const ServedInterface& on, const HTTPMessage& request,
                                const std::string& method, const std::string& url) override {
    asked.push_back(method + "|" + url + "|" + request.body);
    askedOn = &on;
    HTTPMessage reply(HTTP_OK);
    reply.body = body;
    return reply;
  }

  int listener = -1;
  std::shared_ptr<ServedInterface> device = std::make_shared<FakeInterface>();
  std::string body = "hello";
  std::vector<std::string> asked;
  const ServedInterface* askedOn = nullptr;
};

/// A control point with one connection.
class Client {
 public:
  /// `receiveBuffer` in bytes; 0: the system's choice.
  explicit Client(int receiveBuffer = 0) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBuffer > 0) {
      setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(HTTP_PORT);
    server.sin_addr.s_addr = strtoip("127.0.0.1");
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
  }

  void send(std::string_view text) const {
    EXPECT_EQ(::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }

  /// Takes what has arrived. True when the server has closed the connection.
  bool receive() {
    std::array<char, 65536> bytes;
    while (true) {
      const ssize_t size = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (size < 0) {
        error = errno;
        return error != EAGAIN;
      }
      if (size == 0) return true;
      received.append(bytes.data(), static_cast<size_t>(size));
    }
  }

  void close() { fd.reset(); }

  /// Closes so that the server gets a reset.
  void reset() {
    const linger atOnce = {1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
  }

  std::string received;
  int error = 0;

 private:
  lm::Fd fd;
};

const std::string reply = "HTTP/1.1 200 OK\r\n\r\nhello";

}  // namespace

class HTTPServerTest : public testing::Test {
 protected:
  HTTPServerTest() : loop(clock), server(gateway), listener(makeTcpSocket("lo", HTTP_PORT)) {
    gateway.listener = listener.get();
    watch.start<&HTTPServer::acceptHttp>(listener.get(), server, lm::watchRead);
  }

  /// Turns the loop until `condition` holds, at most five seconds.
  void turnUntil(const std::function<bool()>& condition) {
    for (int turn = 0; turn < 500; ++turn) {
      if (condition()) return;
      loop.turn(10);
    }
    ADD_FAILURE() << "did not happen";
  }

  void accept(size_t connections = 1) {
    turnUntil([&] { return server.openConnections() == connections; });
  }

  /// Everything that the client sent has been read.
  void readAll() {
    for (int turn = 0; turn < 5; ++turn) loop.turn(1);
  }

  void untilClosed(Client& client) {
    turnUntil([&] { return client.receive(); });
  }

  void pass(std::chrono::milliseconds time) {
    clock.advance(static_cast<uint64_t>(time.count()));
    loop.turn(0);
  }

  std::string logged(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
  }

  PrivateNetwork network;
  lm::test::ManualClock clock;
  lm::EventLoop loop;
  FakeGateway gateway;
  HTTPServer server;
  lm::Fd listener;
  lm::Watch watch;
};

TEST_F(HTTPServerTest, AnswersARequestAndCloses) {
  Client client;
  client.send("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(logged([&] { untilClosed(client); }), "");
  EXPECT_EQ(client.received, reply);
  EXPECT_EQ(gateway.asked, std::vector<std::string>{"GET|/x|"});
  EXPECT_EQ(gateway.askedOn, gateway.device.get());
  EXPECT_EQ(server.openConnections(), 0U);
}

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

TEST_F(HTTPServerTest, ReadsAtMost4096BytesAtATime) {
  // Only what comes with the last byte of a request can make it too long.
  const auto asksWith = [&](size_t size) {
    const std::string head = "POST /x HTTP/1.1\r\nContent-Length: ";
    const size_t body = size - head.size() - strlen("4000\r\n\r\n");
    Client client;
    accept();
    client.send(head + std::to_string(body) + "\r\n\r\n" + std::string(body, 'x') + "y");
    readAll();
    client.receive();
    pass(10s);
    return client.received;
  };
  EXPECT_EQ(asksWith(4096), reply);
  EXPECT_EQ(asksWith(4095), "");
}

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

TEST_F(HTTPServerTest, AnswersOnlyTheFirstOfTwoRequests) {
  Client client;
  client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
  EXPECT_EQ(gateway.asked, std::vector<std::string>{"GET|/1|GET /2 HTTP/1.1\r\n\r\n"});
}

TEST_F(HTTPServerTest, DeliversTheReplyAlthoughBytesAreLeftUnread) {
  Client client;
  client.send("GET /1 HTTP/1.1\r\n\r\n");
  client.send(std::string(20000, 'x'));
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
  EXPECT_NE(client.error, ECONNRESET);
}

TEST_F(HTTPServerTest, NeverAnswersABodyThatIsTooLong) {
  Client client;
  client.send("POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcde");
  accept();
  readAll();
  EXPECT_EQ(server.openConnections(), 1U);
  EXPECT_EQ(logged([&] { pass(10s); }), "http request timeout\n");
  EXPECT_TRUE(client.receive());
  EXPECT_EQ(client.received, "");
  EXPECT_TRUE(gateway.asked.empty());
}

TEST_F(HTTPServerTest, NeverAnswersBehindALineWithoutAColon) {
  Client client;
  client.send("GET /x HTTP/1.1\r\nnonsense\r\n\r\n");
  accept();
  readAll();
  EXPECT_EQ(server.openConnections(), 1U);
  EXPECT_EQ(logged([&] { pass(10s); }), "http request timeout\n");
  EXPECT_TRUE(client.receive());
  EXPECT_TRUE(gateway.asked.empty());
}

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

TEST_F(HTTPServerTest, ForgetsTheTimeLimitOfAnAnsweredRequest) {
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(logged([&] { pass(20s); }), "");
}

TEST_F(HTTPServerTest, DropsAClientThatClosesOrResetsWithoutAWord) {
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

TEST_F(HTTPServerTest, DropsARequestThatPasses64KiBWithoutAWord) {
  Client client;
  accept();
  size_t sent = 0;
  const std::string log = logged([&] {
    while (sent < HTTPServer::maxRequest) {
      client.send(std::string(1024, 'x'));
      sent += 1024;
      readAll();
    }
    EXPECT_EQ(server.openConnections(), 1U) << "64 KiB is not too much";
    client.send("x");
    turnUntil([&] { return server.openConnections() == 0; });
  });
  EXPECT_EQ(log, "");
  EXPECT_TRUE(client.receive());
  EXPECT_EQ(client.received, "");
}

TEST_F(HTTPServerTest, AnswersARequestOf64KiB) {
  std::string request = "POST /x HTTP/1.1\r\nContent-Length: 65493\r\n\r\n";
  ASSERT_EQ(request.size(), 43U);
  request.append(65493, 'x');
  ASSERT_EQ(request.size(), HTTPServer::maxRequest);
  Client client;
  for (size_t sent = 0; sent < request.size(); sent += 4096) {
    client.send(std::string_view(request).substr(sent, 4096));
    readAll();
  }
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
}

TEST_F(HTTPServerTest, BoundsARequestBy64KiBWhateverThePieces) {
  const auto post = [](size_t size) {
    const std::string head = "POST /x HTTP/1.1\r\nContent-Length: ";
    const size_t body = size - head.size() - strlen("65000\r\n\r\n");
    return head + std::to_string(body) + "\r\n\r\n" + std::string(body, 'x');
  };
  const auto get = [](size_t size) {
    const std::string head = "GET /x HTTP/1.1\r\nX: ";
    return head + std::string(size - head.size() - 4, 'x') + "\r\n\r\n";
  };
  const size_t most = HTTPServer::maxRequest;
  const struct {
    std::string sent;
    bool answered;
    const char* what;
  } requests[] = {
      {post(most), true, "a body that fits"},
      {post(most + 1), false, "a body of one byte too many"},
      {post(68000), false, "a body that ends in the next read"},
      {get(most), true, "a header that fits"},
      {get(most + 1), false, "a header of one byte too many"},
      {get(68000), false, "a header that ends in the next read"},
      {get(most - 10) + "GET /2 HTTP/1.1\r\n\r\n", true, "a second request that does not fit"},
  };
  // Where the client pauses until all that it sent has been read, besides every 4,096 bytes.
  const std::vector<std::vector<size_t>> pauses = {
      {}, {1}, {100}, {4095}, {1000, 60000}, {most - 4096}, {most - 1}, {most}, {most + 1}};
  for (const auto& [sent, answered, what] : requests) {
    for (const auto& pausesOfOne : pauses) {
      gateway.asked.clear();
      Client client;
      accept();
      size_t at = 0;
      const auto sendUpTo = [&](size_t end) {
        while (at < std::min(end, sent.size()) && server.openConnections() > 0) {
          const size_t size = std::min({BUFLEN, end - at, sent.size() - at});
          client.send(std::string_view(sent).substr(at, size));
          at += size;
          for (int turn = 0; turn < 3; ++turn) loop.turn(0);
        }
      };
      for (const size_t pause : pausesOfOne) sendUpTo(pause);
      sendUpTo(sent.size());
      untilClosed(client);
      EXPECT_EQ(client.received, answered ? reply : "")
          << what << ", pauses " << testing::PrintToString(pausesOfOne);
      EXPECT_EQ(gateway.asked.size(), answered ? 1U : 0U);
    }
  }
}

TEST_F(HTTPServerTest, CountsTheByteThatEndsARequestOf64KiB) {
  // A request is complete with the last carriage return. The line feed that follows it is one of
  // its bytes, whether it has arrived or not.
  const std::string head = "GET /x HTTP/1.1\r\nX: ";
  for (const size_t tooMany : {0UL, 1UL}) {
    const size_t fill = HTTPServer::maxRequest + tooMany - head.size() - 4;
    const std::string request = head + std::string(fill, 'x') + "\r\n\r";
    Client client;
    accept();
    for (size_t sent = 0; sent < request.size(); sent += BUFLEN) {
      client.send(std::string_view(request).substr(sent, BUFLEN));
      readAll();
    }
    untilClosed(client);
    EXPECT_EQ(client.received, tooMany == 0 ? reply : "");
  }
}

TEST_F(HTTPServerTest, AcceptsNothingWhenNobodyIsThereAndDoesNotWait) {
  EXPECT_EQ(logged([&] { server.acceptHttp(listener.get()); }), "accept failed\n");
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
}

TEST_F(HTTPServerTest, AcceptsNothingWhenItMightHaveToWait) {
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  std::string log;
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}, EPERM,
               [&] { log = logged([&] { server.acceptHttp(listener.get()); }); });
  EXPECT_EQ(log, "accept failed\n");
  EXPECT_EQ(server.openConnections(), 0U);
  untilClosed(client);
  EXPECT_EQ(client.received, reply);
}

TEST_F(HTTPServerTest, EndsTheProcessForAListenerOfNobody) {
  const Client client;
  gateway.listener = -1;
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        server.acceptHttp(listener.get());
      },
      testing::ExitedWithCode(1), "^oo jeaaa\n$");
}

TEST_F(HTTPServerTest, AcceptsBeforeItLooksForTheInterface) {
  gateway.listener = -1;
  EXPECT_EQ(logged([&] { server.acceptHttp(listener.get()); }), "accept failed\n");
}

TEST_F(HTTPServerTest, EndsTheProcessForAConnectionOfNobody) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        server.readHttp(listener.get());
      },
      testing::ExitedWithCode(1), "^fatal error: could not find http conn\n$");
}

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

TEST_F(HTTPServerTest, WritesAReplyOnceOnly) {
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

TEST_F(HTTPServerTest, DoesNotWriteWhereItCouldHaveToWait) {
  Client client;
  client.send("GET /x HTTP/1.1\r\n\r\n");
  std::string log;
  whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, SO_SNDTIMEO}, EPERM,
               [&] { log = logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }); });
  EXPECT_EQ(log, "setsockopt SO_SNDTIMEO: Operation not permitted\nwrite error\n");
  untilClosed(client);
  EXPECT_EQ(client.received, "");
}

TEST_F(HTTPServerTest, WritesALargeDescriptionAtOnceToAClientThatDoesNotRead) {
  // Connections inherit the listener's buffer, which is far too small for the reply.
  const int buffer = 4096;
  setsockopt(listener.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  gateway.body = std::string(200000, 'x');
  Client client(4096);
  client.send("GET /x HTTP/1.1\r\n\r\n");
  EXPECT_EQ(logged([&] { turnUntil([&] { return !gateway.asked.empty(); }); }), "");
  untilClosed(client);
  EXPECT_EQ(client.received.size(), 19 + gateway.body.size());
}

TEST_F(HTTPServerTest, SurvivesAClientThatIsGoneBeforeTheReply) {
  Client client;
  accept();
  client.send("GET /x HTTP/1.1\r\n\r\n");
  client.close();
  turnUntil([&] { return server.openConnections() == 0; });
  EXPECT_EQ(gateway.asked.size(), 1U);
}

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

TEST_F(HTTPServerTest, ClosesEveryConnectionAtItsEnd) {
  Client client;
  {
    HTTPServer other(gateway);
    watch.start<&HTTPServer::acceptHttp>(listener.get(), other, lm::watchRead);
    turnUntil([&] { return other.openConnections() == 1; });
    watch.stop();
  }
  EXPECT_TRUE(client.receive());
  EXPECT_EQ(logged([&] { pass(20s); }), "");
}

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
