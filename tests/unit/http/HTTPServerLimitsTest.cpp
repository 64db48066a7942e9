#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "http/HTTPServerFixture.h"

using namespace std::chrono_literals;

namespace {

/// A request of `size` bytes most of which are its body.
std::string post(size_t size) {
  const std::string head = "POST /x HTTP/1.1\r\nContent-Length: ";
  const size_t body = size - head.size() - strlen("65000\r\n\r\n");
  return head + std::to_string(body) + "\r\n\r\n" + std::string(body, 'x');
}

/// A request of `size` bytes most of which are its header.
std::string get(size_t size) {
  const std::string head = "GET /x HTTP/1.1\r\nX: ";
  return head + std::string(size - head.size() - strlen("\r\n\r\n"), 'x') + "\r\n\r\n";
}

/// How large a request may be.
class HTTPServerLimits : public HTTPServerTest {
 protected:
  /// What a client gets that sends `text` in pieces, each after the one before has been read. They
  /// end at `ends`, and have at most 4,096 bytes.
  std::string replyTo(std::string_view text, std::vector<size_t> ends) {
    ends.push_back(text.size());
    Client client;
    accept();
    size_t sent = 0;
    for (const size_t end : ends) {
      while (sent < std::min(end, text.size()) && server.openConnections() > 0) {
        const size_t size = std::min(BUFLEN, std::min(end, text.size()) - sent);
        client.send(text.substr(sent, size));
        sent += size;
        for (int turn = 0; turn < 3; ++turn) loop.turn(0ms);
      }
    }
    untilClosed(client);
    return client.received;
  }
};

}  // namespace

// Promise [read-size]: One read takes 4096 bytes: of what follows a request, only bytes of its last
// read can make it too long.
TEST_F(HTTPServerLimits, ReadsAtMost4096BytesAtATime) {
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

// Also proves [request-too-large].
TEST_F(HTTPServerLimits, SilentlyDropsARequestThatPasses64KiB) {
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

// Promise [request-size]: A request may have 64 KiB, header and body together.
TEST_F(HTTPServerLimits, AnswersARequestOf64KiB) {
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

// Promise [request-too-large]: A longer request is dropped without a reply and without a line in
// the log, whatever the pieces in which it arrives, as soon as more than 64 KiB were read.
// Promise [request-rest]: What follows a request without a `CONTENT-LENGTH` does not count as part
// of it.
TEST_F(HTTPServerLimits, BoundsARequestBy64KiBWhateverThePieces) {
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
  // Where a piece ends, besides every 4,096 bytes.
  const std::vector<std::vector<size_t>> ends = {
      {}, {1}, {100}, {4095}, {1000, 60000}, {most - 4096}, {most - 1}, {most}, {most + 1}};
  for (const auto& request : requests) {
    for (const auto& endsOfOne : ends) {
      gateway.asked.clear();
      EXPECT_EQ(replyTo(request.sent, endsOfOne), request.answered ? reply : "")
          << request.what << ", pieces end at " << testing::PrintToString(endsOfOne);
      EXPECT_EQ(gateway.asked.size(), request.answered ? 1U : 0U);
    }
  }
}

// Also proves [request-size].
TEST_F(HTTPServerLimits, CountsTheByteThatEndsARequestOf64KiB) {
  // A request is complete with the last carriage return. The line feed that follows it is one of
  // its bytes, whether it has arrived or not.
  for (const size_t size : {HTTPServer::maxRequest, HTTPServer::maxRequest + 1}) {
    const std::string request = get(size).substr(0, size - 1);
    EXPECT_EQ(replyTo(request, {}), size == HTTPServer::maxRequest ? reply : "");
  }
}
