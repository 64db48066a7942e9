#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "http/HTTPServer.h"
#include "http/Server.h"
#include "lumen/runtime/EventLoop.h"
#include "net/Address.h"
#include "net/Sockets.h"
#include "platform/Fd.h"
#include "platform/Watch.h"
#include "support/Logged.h"
#include "support/ManualClock.h"
#include "support/PrivateNetwork.h"

using lm::test::logged;

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
    if (work) work();
    HTTPMessage reply(HTTP_OK);
    reply.body = body;
    return reply;
  }

  int listener = -1;
  std::shared_ptr<ServedInterface> device = std::make_shared<FakeInterface>();
  std::string body = "hello";
  std::function<void()> work;  ///< done for each request
  std::vector<std::string> asked;
  const ServedInterface* askedOn = nullptr;
};

/// A control point with one connection.
class Client {
 public:
  /// `receiveBuffer` in bytes; 0: the system's choice. `from` is an address of "lo".
  explicit Client(int receiveBuffer = 0, const char* from = "127.0.0.1")
      : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = strtoip(from);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
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

/// What FakeGateway answers by default.
inline const std::string reply = "HTTP/1.1 200 OK\r\n\r\nhello";

/// A server on "lo" whose clock the test moves.
class HTTPServerTest : public testing::Test {
 protected:
  HTTPServerTest() : loop(clock), server(gateway), listener(makeTcpSocket("lo", HTTP_PORT)) {
    gateway.listener = listener.get();
    EXPECT_TRUE(HTTPServer::prepareListener(listener.get()));
    watch.start<&HTTPServer::acceptHttp>(listener.get(), server, lm::watchAccept);
  }

  /// Turns the loop until `condition` holds, at most five seconds.
  void turnUntil(const std::function<bool()>& condition) {
    for (int turn = 0; turn < 500; ++turn) {
      if (condition()) return;
      loop.turn(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "did not happen";
  }

  /// Far too small for a long reply. Connections inherit the listener's buffer.
  void makeSendBufferSmall() {
    const int buffer = 4096;
    setsockopt(listener.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  }

  void accept(size_t connections = 1) {
    turnUntil([&] { return server.openConnections() == connections; });
  }

  /// Everything that the client sent has been read.
  void readAll() {
    for (int turn = 0; turn < 5; ++turn) loop.turn(std::chrono::milliseconds(1));
  }

  void untilClosed(Client& client) {
    turnUntil([&] { return client.receive(); });
  }

  void pass(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(std::chrono::milliseconds(0));
  }

  /// Sends `request` on its own connection, on which no reply comes: the request is never
  /// complete and times out.
  void expectNoAnswer(std::string_view request) {
    Client client;
    client.send(request);
    accept();
    readAll();
    EXPECT_EQ(server.openConnections(), 1U);
    EXPECT_EQ(logged([&] { pass(std::chrono::seconds(10)); }), "http request timeout\n");
    EXPECT_TRUE(client.receive());
    EXPECT_EQ(client.received, "");
    EXPECT_TRUE(gateway.asked.empty());
  }

  PrivateNetwork network;
  lm::test::ManualClock clock;
  lm::EventLoop loop;
  FakeGateway gateway;
  HTTPServer server;
  lm::Fd listener;
  lm::Watch watch;
};
