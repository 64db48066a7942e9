#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <utility>

#include "http/HTTPMessage.h"
#include "platform/Fd.h"
#include "support/Sockets.h"
#include "support/TestPlatform.h"

/// A control point that listens for events on an address of loopback.
class Subscriber {
 public:
  explicit Subscriber(lm::test::TestPlatform& testPlatform, const char* address = "127.0.0.1")
      : platform(testPlatform), host(address), listener(128, address) {}

  /// From now on little of a NOTIFY gets across before it is read.
  void makeWindowSmall() const {
    const int smallest = 1;
    setsockopt(listener.fd.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
  }

  [[nodiscard]] std::string callback() const {
    return "<http://" + host + ":" + std::to_string(listener.port) + "/event>";
  }
  [[nodiscard]] HTTPMessage subscribeRequest(const std::string& timeout = "Second-1800") const {
    HTTPMessage request;
    request.startLine = "SUBSCRIBE /upnp/event/lamp HTTP/1.1";
    request.addField("NT", "upnp:event");
    request.addField("CALLBACK", callback());
    if (!timeout.empty()) request.addField("TIMEOUT", timeout);
    return request;
  }

  /// Takes the next delivery's connection; `connection` holds it.
  bool accept() {
    return platform.turnUntil([this] {
      connection.reset(accept4(listener.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      return connection.valid();
    });
  }
  /// Reads from `connection` until a whole message is there.
  [[nodiscard]] std::string receive() {
    std::string text;
    (void)platform.turnUntil([&] {
      text += lm::test::readAvailable(connection.get());
      return HTTPMessage(text).complete;
    });
    return text;
  }
  /// The next delivery's NOTIFY.
  [[nodiscard]] HTTPMessage notify() { return HTTPMessage(accept() ? receive() : std::string()); }
  void answer(const std::string& reply = "HTTP/1.1 200 OK\r\n\r\n") {
    (void)lm::test::writeText(connection.get(), reply);
  }
  /// Takes a delivery, answers it and closes.
  HTTPMessage notifyAndAnswer() {
    HTTPMessage received = notify();
    answer();
    (void)closedByService();
    connection.reset();
    return received;
  }
  /// Whether the service has closed `connection`, which has nothing unread.
  [[nodiscard]] bool closedByService() {
    return platform.turnUntil([this] {
      char byte = 0;
      return recv(connection.get(), &byte, 1, 0) == 0;
    });
  }
  /// Whether no delivery's connection is there to be taken.
  [[nodiscard]] bool hearsNothing() {
    platform.turn();
    lm::Fd taken(accept4(listener.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    return !taken.valid();
  }
  /// Stops listening: connections are refused.
  void leave() { listener.fd.reset(); }
  /// Ends `connection` with a reset.
  void reset() {
    const linger atOnce = {1, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    connection.reset();
  }

  lm::test::TestPlatform& platform;
  const std::string host;
  lm::test::TcpListener listener;
  lm::Fd connection;
};
