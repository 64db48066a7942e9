#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

#include "lumen/runtime/EventLoop.h"
#include "lumen/web/EventStreams.h"
#include "lumen/web/HttpServer.h"
#include "platform/Fd.h"
#include "support/ManualClock.h"

namespace lumen::web {
namespace {

using namespace std::chrono_literals;

/// A server whose every answer is a stream, and a browser that is connected to it.
struct EventStreamsTest : testing::Test, HttpServer::Site, EventStreams::Source {
  EventStreamsTest() {
    const lm::Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener.get(), place, length), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(getsockname(listener.get(), place, &length), 0);
    EXPECT_EQ(connect(browser.get(), place, length), 0);
    EXPECT_TRUE(server.open());
    server.adopt(lm::Fd(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)),
                 Ipv4Address(127, 0, 0, 1));
  }
  ~EventStreamsTest() override {
    streams.endAll();
    server.run();
  }

  [[nodiscard]] bool isOwn(std::string_view /*hostHeader*/) const override { return true; }
  [[nodiscard]] MHD_Result answer(const HttpServer::Request& request) override {
    return streams.open(request.connection, request.host);
  }
  [[nodiscard]] std::string beginning() override { return "event: begin\n\n"; }
  [[nodiscard]] std::string portion(EventStreams::Cursor& /*cursor*/) override { return {}; }
  [[nodiscard]] std::string ending() override { return "event: complete\n\n"; }

  void asks() {
    const std::string request = "GET /events HTTP/1.0\r\nHost: router\r\n\r\n";
    EXPECT_EQ(send(browser.get(), request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
    readUntil([this] { return seen.find("complete") != std::string::npos; });
  }
  void isSent(size_t events) {
    const std::string event = "data: " + std::string(1000, 'x') + "\n\n";
    for (size_t i = 0; i < events; ++i) streams.send(event);
  }
  /// Lets the browser read until then, or the end, or for ten seconds.
  template <typename Condition>
  void readUntil(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + 10s;
    while (!condition() && !ended && std::chrono::steady_clock::now() < limit) {
      server.run();
      std::array<char, 65536> part{};
      const ssize_t got = recv(browser.get(), part.data(), part.size(), MSG_DONTWAIT);
      if (got > 0) seen.append(part.data(), static_cast<size_t>(got));
      ended = got == 0 || (got < 0 && errno != EAGAIN);
    }
  }

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  EventStreams streams{*this};
  HttpServer server{*this, clock};
  lm::Fd browser{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::string seen;
  bool ended = false;
};

TEST_F(EventStreamsTest, BringsEveryEventToABrowserThatReads) {
  asks();
  for (int i = 0; i < 40; ++i) {
    isSent(100);
    const size_t before = seen.size();
    readUntil([&] { return seen.size() >= before + 100'000; });
  }
  EXPECT_GT(seen.size(), 4'000'000U);
  EXPECT_FALSE(ended);
  EXPECT_EQ(streams.size(), 1U);
}

// Promise: A stream of events is ended when 256 KiB wait for its reader.
TEST_F(EventStreamsTest, EndsTheStreamOfABrowserThatDoesNotRead) {
  asks();
  isSent(4000);
  readUntil([&] { return seen.size() > 4'000'000; });
  EXPECT_TRUE(ended);
  EXPECT_LT(seen.size(), EventStreams::longestQueue + 4096);
  EXPECT_EQ(streams.size(), 0U);
}

}  // namespace
}  // namespace lumen::web
