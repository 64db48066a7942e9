#include <gtest/gtest.h>

#include <list>
#include <string>

#include "http/HTTPServerFixture.h"

namespace {

constexpr const char* innocent = "127.0.0.2";
constexpr const char* hostile = "127.0.0.3";

/// What one host can take from the others.
class HTTPServerCrowd : public HTTPServerTest {
 protected:
  /// A client that has connected and been accepted.
  Client& connectFrom(const std::string& address) {
    Client& client = clients.emplace_back(0, address.c_str());
    readAll();
    return client;
  }

  /// One that has sent so many bytes of a request that does not end.
  Client& sendFrom(const std::string& address, size_t size) {
    Client& client = connectFrom(address);
    const std::string piece(BUFLEN, 'x');
    for (size_t sent = 0; sent < size; sent += BUFLEN) {
      client.send(std::string_view(piece).substr(0, std::min(BUFLEN, size - sent)));
      readAll();
    }
    return client;
  }

  static void finish(Client& client) { client.send("GET /x HTTP/1.1\r\n\r\n"); }

  std::list<Client> clients;
};

}  // namespace

// Promise [connections-limit]: At most 64 connections are open at a time. Above that the oldest one
// of the address that has the most is closed without a line in the log.
TEST_F(HTTPServerCrowd, AHostWithManyConnectionsDisplacesItsOwn) {
  Client& first = connectFrom(innocent);
  Client& oldest = connectFrom(hostile);
  const std::string log = logged([&] {
    while (server.openConnections() < HTTPServer::maxConnections) connectFrom(hostile);
    EXPECT_FALSE(oldest.receive());
    connectFrom(hostile);
  });
  EXPECT_EQ(log, "");
  EXPECT_EQ(server.openConnections(), HTTPServer::maxConnections);
  EXPECT_TRUE(oldest.receive()) << "closed";
  EXPECT_FALSE(first.receive());
  Client& later = connectFrom(innocent);
  for (int i = 0; i < 200; ++i) connectFrom(hostile);
  finish(first);
  untilClosed(first);
  EXPECT_EQ(first.received, reply);
  finish(later);
  untilClosed(later);
  EXPECT_EQ(later.received, reply);
}

// Also proves [connections-limit].
TEST_F(HTTPServerCrowd, AmongHostsWithAsManyConnectionsTheOldestGoes) {
  for (size_t i = 0; i < HTTPServer::maxConnections; ++i) {
    connectFrom("127.0.1." + std::to_string(i));
  }
  Client& quick = connectFrom(innocent);
  EXPECT_TRUE(clients.front().receive());
  EXPECT_FALSE(std::next(clients.begin())->receive());
  connectFrom("127.0.2.1");
  EXPECT_TRUE(std::next(clients.begin())->receive());
  finish(quick);
  untilClosed(quick);
  EXPECT_EQ(quick.received, reply);
}

// Promise [request-memory]: The requests of all clients together take 2 MiB at most. Above that the
// oldest connection of the address that has sent the most is closed without a line in the log.
TEST_F(HTTPServerCrowd, LargeRequestsDisplaceThoseOfTheSameHost) {
  Client& small = sendFrom(innocent, 100);
  const size_t fit = HTTPServer::maxReceived / HTTPServer::maxRequest;
  Client& oldest = sendFrom(hostile, HTTPServer::maxRequest);
  const std::string log = logged([&] {
    for (size_t i = 1; i < fit + 3; ++i) sendFrom(hostile, HTTPServer::maxRequest);
  });
  EXPECT_EQ(log, "");
  EXPECT_TRUE(oldest.receive()) << "closed";
  EXPECT_LE(server.openConnections(), fit + 1);
  EXPECT_FALSE(small.receive());
  EXPECT_FALSE(clients.back().receive()) << "the newest stays";
}

// Also proves [request-memory].
TEST_F(HTTPServerCrowd, ConnectionsWithoutARequestDoNotSaveTheLargeOnesOfTheirHost) {
  Client& small = sendFrom(innocent, 100);
  for (int i = 0; i < 20; ++i) connectFrom(hostile);
  for (size_t i = 0; i < HTTPServer::maxReceived / HTTPServer::maxRequest; ++i) {
    sendFrom(hostile, HTTPServer::maxRequest);
  }
  EXPECT_FALSE(small.receive());
  EXPECT_LE(server.openConnections(), HTTPServer::maxReceived / HTTPServer::maxRequest + 1);
}
