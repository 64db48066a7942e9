// Who answers a request from the LAN.

#include <sys/socket.h>

#include <vector>

#include "core/GatewayFixture.h"
#include "platform/Keys.h"
#include "platform/Watch.h"
#include "support/Sockets.h"

namespace {

class GatewayRequests : public GatewayTest {
 protected:
  void SetUp() override { serve(); }
};

// Promise: The root device's `presentationURL` is `http://ADDRESS/` with the address of the
// interface that was asked.
// Promise [url-base]: `URLBase` is the last child of `root`, `http://ADDRESS:2828` with the address
// of the interface that was asked.
// Also proves [description-url].
TEST_F(GatewayRequests, TheDescriptionNamesTheInterfaceThatServesIt) {
  const std::string reply = exchange("GET /gateway.xml HTTP/1.1\r\n\r\n");
  EXPECT_EQ(reply.substr(0, 15), "HTTP/1.1 200 OK");
  EXPECT_NE(reply.find("    <presentationURL>http://192.168.88.1/</presentationURL>\r\n"
                       "  </device>\r\n"
                       "  <URLBase>http://192.168.88.1:2828</URLBase>\r\n"
                       "</root>\r\n"),
            std::string::npos);
  EXPECT_NE(reply.find("<manufacturerURL>http://www.kestrava.example/</manufacturerURL>"),
            std::string::npos);
}

TEST_F(GatewayRequests, TheDescriptionNamesTheIconsWhereTheyAreServed) {
  const std::string reply = exchange("GET /gateway.xml HTTP/1.1\r\n\r\n");
  for (const char* size : {"16", "32", "48"}) {
    const std::string url = std::string("/logo") + size + ".gif";
    EXPECT_NE(reply.find("<width>" + std::string(size) + "</width>"), std::string::npos);
    EXPECT_NE(reply.find("<url>" + url + "</url>"), std::string::npos) << reply;
  }
}

// Promise [methods]: A method other than `GET`, `POST`, `SUBSCRIBE` and `UNSUBSCRIBE`, which are
// recognised in upper case only, is answered with a bare `501 Not Implemented` and logged as `what
// is this: 'METHOD'`.
TEST_F(GatewayRequests, AnyMethodButFourIsNotImplemented) {
  for (const char* method : {"HEAD", "get", "PUT", "M-SEARCH", ""}) {
    EXPECT_EQ(status(std::string(method) + " /gateway.xml"), "HTTP/1.1 501 Not Implemented");
    EXPECT_EQ(log(), Lines{std::string("what is this: '") + method + "'"});
  }
}

// Also proves [url-exact].
TEST_F(GatewayRequests, AQueryIsPartOfTheUrl) {
  EXPECT_EQ(status("GET /gateway.xml?x=1"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(status("GET http://192.168.88.1:2828/gateway.xml"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(log(), Lines{});
}

// Promise [service-url]: `POST` finds a service by its control URL and `SUBSCRIBE` and
// `UNSUBSCRIBE` find it by its event URL; any other URL is a bare `404 Not Found` without a line in
// the log, whatever `HOST` says.
TEST_F(GatewayRequests, AServiceIsFoundByItsUrlBeforeTheHostIsLookedAt) {
  EXPECT_EQ(status("POST /upnp/control/none"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(status("POST /upnp/event/osinfo"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(status("SUBSCRIBE /upnp/control/osinfo"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(status("UNSUBSCRIBE /gateway.xml"), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(log(), Lines{});
}

// Promise [host-mismatch]: A request to a service with another `HOST`, or none, is answered with a
// bare `400 Bad Request` and logged as `METHOD: host mismatch 'HOST'`.
// Also proves [subscribe-host].
TEST_F(GatewayRequests, TheHostMustBeThisInterface) {
  EXPECT_EQ(status("SUBSCRIBE /upnp/event/osinfo", "HOST: 10.0.0.1\r\n"),
            "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(status("UNSUBSCRIBE /upnp/event/osinfo", "HOST: 192.168.88.1:80\r\n"),
            "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(status("POST /upnp/control/osinfo"), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(log(),
            (Lines{"SUBSCRIBE: host mismatch '10.0.0.1'",
                   "UNSUBSCRIBE: host mismatch '192.168.88.1:80'", "POST: host mismatch ''"}));
}

// Promise [host-match]: A request to a service must name this interface in `HOST`, as its address
// or as its address and `:2828`, byte for byte; then the service answers it.
TEST_F(GatewayRequests, TheHostMayHaveThePortOrNot) {
  for (const char* host : {"192.168.88.1", "192.168.88.1:2828"}) {
    const std::string field = std::string("HOST: ") + host + "\r\n";
    EXPECT_EQ(status("SUBSCRIBE /upnp/event/wanipconn-3", field),
              "HTTP/1.1 412 Precondition Failed");
    EXPECT_EQ(status("UNSUBSCRIBE /upnp/event/wancommonifc-3", field),
              "HTTP/1.1 412 Precondition Failed");
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(status("POST /upnp/control/osinfo", field), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(log(), Lines{"POST method with bad CONTENT-TYPE: "});
  }
}

// Also proves [host-match].
TEST_F(GatewayRequests, AServiceAnswersItsRequests) {
  const std::string reply = invoke("/upnp/control/wanipconn-3", "GetExternalIPAddress");
  EXPECT_NE(reply.find("<NewExternalIPAddress>45.45.45.2</NewExternalIPAddress>"),
            std::string::npos);
}

// Also proves [loop-between].
TEST_F(GatewayRequests, ConnectionsAreTakenBetweenAnyTwoOtherCallbacks) {
  /// Fills the queue of the listening socket, which has room for two.
  struct Burst {
    void ready(int fd) {
      lm::test::readAvailable(fd);
      for (int i = 0; i < 2; ++i) {
        clients.push_back(connectToGateway());
        if (clients.back().valid()) ++connected;
      }
    }
    std::vector<lm::Fd> clients;
    int connected = 0;
  } burst;
  const lm::test::SocketPair first(SOCK_STREAM);
  const lm::test::SocketPair second(SOCK_STREAM);
  lm::Watch firstWatch;
  lm::Watch secondWatch;
  firstWatch.start<&Burst::ready>(first.ours.get(), burst, lm::watchRead);
  secondWatch.start<&Burst::ready>(second.ours.get(), burst, lm::watchRead);
  ASSERT_TRUE(lm::test::writeText(first.peer.get(), "x"));
  ASSERT_TRUE(lm::test::writeText(second.peer.get(), "x"));
  platform.turn();
  EXPECT_EQ(burst.connected, 4);
}

// Promise: An accept that fails is the line `accept failed`, and the next client is served.
TEST_F(GatewayRequests, AnAcceptThatFailsIsNotFatal) {
  gateway->acceptHttp(-1);
  EXPECT_EQ(log(), Lines{"accept failed"});
  EXPECT_EQ(status("GET /gateway.xml"), "HTTP/1.1 200 OK");
}

}  // namespace
