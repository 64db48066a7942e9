#include <netinet/in.h>

#include "http/Server.h"
#include "net/Address.h"
#include "ssdp/SearchResponder.h"
#include "ssdp/SsdpNetwork.h"
#include "support/Descriptors.h"

namespace {

const std::string search =
    "M-SEARCH * HTTP/1.1\r\n"
    "HOST: 239.255.255.250:1900\r\n"
    "MAN: \"ssdp:discover\"\r\n"
    "MX: 3\r\n"
    "ST: upnp:rootdevice\r\n"
    "\r\n";

/// `search` with one of its texts replaced.
std::string searchWith(const std::string& text, const std::string& instead) {
  std::string changed = search;
  return changed.replace(search.find(text), text.size(), instead);
}

const SearchTargets targets = {
    {"urn:x", "uuid:2::urn:x"},
    {"urn:x", "uuid:1::urn:x"},
    {"upnp:rootdevice", "uuid:1::upnp:rootdevice"},
};

}  // namespace

/// A control point at 127.0.0.1 on the LAN of the gateway.
class SearchResponder : public SsdpNetwork {
 protected:
  SearchResponder() : controlPoint(makeUdpSocket("lo")) {
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = strtoip("127.0.0.1");
    EXPECT_EQ(bind(controlPoint.get(), reinterpret_cast<sockaddr*>(&self), sizeof self), 0);
    socklen_t length = sizeof self;
    getsockname(controlPoint.get(), reinterpret_cast<sockaddr*>(&self), &length);
  }

  void lanHostMulticasts(const std::string& datagram) {
    sockaddr_in group = {};
    group.sin_family = AF_INET;
    group.sin_addr.s_addr = inet_addr(SSDP_IP);
    group.sin_port = htons(SSDP_PORT);
    EXPECT_EQ(sendto(controlPoint.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr*>(&group), sizeof group),
              static_cast<ssize_t>(datagram.size()));
  }

  /// The replies to a search for `target`.
  std::vector<std::string> answersTo(const std::string& target) {
    EXPECT_EQ(logged([&] { answerSearch({target, self}, "lo", gatewayAddress, targets); }), "");
    return datagramsAt(controlPoint);
  }

  static std::string answer(const std::string& target, const std::string& usn) {
    return "HTTP/1.1 200 OK\r\n"
           "CACHE-CONTROL: max-age=3600\r\n"
           "EXT: \r\n"
           "LOCATION: http://10.0.0.1:2828/gateway.xml\r\n"
           "SERVER: " +
           SERVER_STRING + "\r\nST: " + target + "\r\nUSN: " + usn + "\r\n\r\n";
  }

  lm::Fd controlPoint;
  sockaddr_in self = {};
};

// Promise [search-mx]: MX must be there, but its value is not read: 0, a word and nothing at all
// are answered, at once.
// Promise: Field names count in any case, blanks before a value do not count, and the empty line at
// the end may be missing.
TEST_F(SearchResponder, TakesAWellFormedSearch) {
  const struct {
    std::string datagram;
    std::string target;
    const char* reason;
  } searches[] = {
      {search, "upnp:rootdevice", "as every control point sends it"},
      {searchWith("upnp:rootdevice", "ssdp:all"), "ssdp:all", "for everything"},
      {searchWith("ST: upnp:rootdevice", "ST:"), "", "for nothing"},
      {searchWith("MX: 3", "MX: 0"), "upnp:rootdevice", "no delay"},
      {searchWith("MX: 3", "MX: soon"), "upnp:rootdevice", "no number"},
      {searchWith("MX: 3", "MX:"), "upnp:rootdevice", "no value"},
      {searchWith("HOST", "Host"), "upnp:rootdevice", "name in another case"},
      {searchWith("ST: ", "St:    "), "upnp:rootdevice", "blanks"},
      {searchWith("\r\n\r\n", "\r\n"), "upnp:rootdevice", "no empty line"},
      {searchWith("\r\n\r\n", "\r\nnonsense\r\n"), "upnp:rootdevice", "nonsense behind it"},
      {search + "body", "upnp:rootdevice", "a body"},
      {searchWith("MX", "CONTENT-LENGTH: 9\r\nMX"), "upnp:rootdevice", "an incomplete body"},
  };
  for (const auto& [datagram, target, reason] : searches) {
    EXPECT_EQ(parseSearch(datagram), target) << reason;
  }
}

// Promise [search-line]: The start line must be `M-SEARCH * HTTP/1.1`, byte for byte.
// Promise [search-host]: HOST must be `239.255.255.250:1900`, byte for byte: not without the port
// and in no other spelling.
// Promise [search-man]: MAN must be `"ssdp:discover"` with its double quotes, in lower case.
// Promise [search-required]: A search without MX or without ST is ignored.
TEST_F(SearchResponder, DropsAnythingElse) {
  const struct {
    std::string datagram;
    const char* reason;
  } datagrams[] = {
      {"", "nothing"},
      {"M-SEARCH * HTTP/1.1", "no line end"},
      {searchWith("M-SEARCH", "NOTIFY"), "an advert"},
      {searchWith("M-SEARCH", "m-search"), "method in another case"},
      {searchWith("M-SEARCH * HTTP/1.1", "M-SEARCH * HTTP/1.0"), "another version"},
      {searchWith("M-SEARCH *", "M-SEARCH  *"), "two blanks"},
      {searchWith("\r\nHOST", " \r\nHOST"), "a blank behind the start line"},
      {searchWith("HOST: 239.255.255.250:1900\r\n", ""), "no HOST"},
      {searchWith(":1900", ""), "HOST without the port"},
      {searchWith(":1900", ":1901"), "another port"},
      {searchWith("239.255.255.250", "239.255.255.251"), "another group"},
      {searchWith("239.255.255.250", "239.255.255.0250"), "another spelling"},
      {searchWith(":1900", ":1900 "), "a blank behind HOST"},
      {searchWith("MAN: \"ssdp:discover\"\r\n", ""), "no MAN"},
      {searchWith("\"ssdp:discover\"", "ssdp:discover"), "MAN without quotes"},
      {searchWith("\"ssdp:discover\"", "\"SSDP:discover\""), "MAN in another case"},
      {searchWith("MX: 3\r\n", ""), "no MX"},
      {searchWith("ST: upnp:rootdevice\r\n", ""), "no ST"},
      {searchWith("MAN", "nonsense\r\nMAN"), "nonsense before MAN"},
      {searchWith("\r\n\r\n", ""), "no line end behind ST"},
  };
  for (const auto& [datagram, reason] : datagrams) {
    EXPECT_EQ(parseSearch(datagram), std::nullopt) << reason;
  }
}

// Also proves [search-reply-port].
TEST_F(SearchResponder, ReceivesASearchAndItsSender) {
  lanHostMulticasts(search);
  const auto request = receiveSearch(discovery.get());
  ASSERT_TRUE(request);
  EXPECT_EQ(request->target, "upnp:rootdevice");
  EXPECT_EQ(request->sender.sin_family, AF_INET);
  EXPECT_EQ(request->sender.sin_port, self.sin_port);
  EXPECT_EQ(request->sender.sin_addr.s_addr, self.sin_addr.s_addr);
}

// Promise: One datagram is handled at a time; those that wait are answered in the order in which
// they came.
TEST_F(SearchResponder, ReceivesOneDatagramPerCall) {
  lanHostMulticasts(searchWith("upnp:rootdevice", "first"));
  lanHostMulticasts(searchWith("upnp:rootdevice", "second"));
  EXPECT_EQ(receiveSearch(discovery.get())->target, "first");
  EXPECT_EQ(receiveSearch(discovery.get())->target, "second");
}

// Promise [search-size]: Of a datagram the first 4096 bytes are read.
TEST_F(SearchResponder, ReadsTheFirst4096BytesOfADatagram) {
  const std::string target(4096 - searchWith("upnp:rootdevice", "").size() + 2, 'x');
  const std::string fits = searchWith("upnp:rootdevice", target);
  lanHostMulticasts(fits + "more");
  const auto request = receiveSearch(discovery.get());
  ASSERT_TRUE(request);
  EXPECT_EQ(request->target, target);
  lanHostMulticasts(searchWith("upnp:rootdevice", target + "xxx"));
  EXPECT_FALSE(receiveSearch(discovery.get())) << "the line end of ST is cut off";
}

// Promise: What is no search for this router is ignored without a line in the log.
TEST_F(SearchResponder, SilentlyDropsADatagramThatIsNoSearch) {
  lanHostMulticasts("what is this");
  EXPECT_EQ(logged([&] { EXPECT_FALSE(receiveSearch(discovery.get())); }), "");
}

// Promise: An empty datagram, or a failure to receive one, logs `search recvfrom failed`, and the
// next search is answered.
TEST_F(SearchResponder, LogsAnEmptyDatagramAndAFailureToReceive) {
  lanHostMulticasts("");
  lanHostMulticasts(search);
  EXPECT_EQ(logged([&] { EXPECT_FALSE(receiveSearch(discovery.get())); }),
            "search recvfrom failed\n");
  EXPECT_TRUE(receiveSearch(discovery.get()));
  EXPECT_EQ(logged([&] { EXPECT_FALSE(receiveSearch(discovery.get())); }),
            "search recvfrom failed\n");
  EXPECT_EQ(logged([] { EXPECT_FALSE(receiveSearch(-1)); }), "search recvfrom failed\n");
}

// Promise [search-reply]: Each search target that matches gets one datagram `HTTP/1.1 200 OK` with
// the fields `CACHE-CONTROL: max-age=3600`, `EXT` (empty), `LOCATION:
// http://<address>:2828/gateway.xml`, `SERVER`, `ST` and `USN`, in this order.
// Promise [search-all]: A search for `ssdp:all` gets a reply for every target of the tree, in the
// byte order of the targets, each with its own ST and USN.
TEST_F(SearchResponder, AnswersASearchForEverythingInOrder) {
  EXPECT_EQ(answersTo("ssdp:all"),
            (std::vector<std::string>{answer("upnp:rootdevice", "uuid:1::upnp:rootdevice"),
                                      answer("urn:x", "uuid:2::urn:x"),
                                      answer("urn:x", "uuid:1::urn:x")}));
}

// Promise: A search for one target gets exactly the entries of that target.
TEST_F(SearchResponder, AnswersWithEachEntryOfTheTarget) {
  EXPECT_EQ(answersTo("upnp:rootdevice"),
            std::vector<std::string>{answer("upnp:rootdevice", "uuid:1::upnp:rootdevice")});
  EXPECT_EQ(answersTo("urn:x"), (std::vector<std::string>{answer("urn:x", "uuid:2::urn:x"),
                                                          answer("urn:x", "uuid:1::urn:x")}));
}

// Promise [search-target]: A search for a target that the router does not have, in this spelling
// and case, gets no reply.
TEST_F(SearchResponder, DoesNotAnswerForAnUnknownTarget) {
  for (const char* target : {"urn:y", "URN:X", "urn:", "urn:x ", "", "ssdp:ALL"}) {
    EXPECT_TRUE(answersTo(target).empty()) << target;
  }
}

// Promise [search-reply-port]: Replies go to the address and port that asked, from a new UDP socket
// on the same interface, not from port 1900, and the socket is closed again.
TEST_F(SearchResponder, AnswersFromItsOwnSocketAndClosesIt) {
  const size_t before = lm::test::openDescriptors();
  answerSearch({"upnp:rootdevice", self}, "lo", gatewayAddress, targets);
  EXPECT_EQ(lm::test::openDescriptors(), before);
  EXPECT_NE(senderPortAt(controlPoint), SSDP_PORT);
}

// Promise: A reply socket that cannot be bound to the interface is reported, even when there is
// nothing to reply.
TEST_F(SearchResponder, OpensItsSocketOnTheInterfaceEvenWithoutAnAnswer) {
  EXPECT_EQ(logged([&] {
              answerSearch({"urn:y", self}, "none0", gatewayAddress, targets);
            }),
            "udp setsockopt SO_BINDTODEVICE: No such device\n");
  EXPECT_EQ(logged([&] {
              answerSearch({"urn:x", self}, "none0", gatewayAddress, targets);
            }),
            "udp setsockopt SO_BINDTODEVICE: No such device\n"
            "search sendto failed\n"
            "search sendto failed\n");
}

// Promise: A reply that cannot be sent logs `search sendto failed`, and the remaining replies are
// sent.
TEST_F(SearchResponder, SendsTheOtherAnswersAfterAFailure) {
  SearchTargets some = {{"a", std::string(70000, 'x')}, {"b", "uuid:1"}};
  EXPECT_EQ(logged([&] {
              answerSearch({"ssdp:all", self}, "lo", gatewayAddress, some);
            }),
            "search sendto failed\n");
  EXPECT_EQ(datagramsAt(controlPoint), std::vector<std::string>{answer("b", "uuid:1")});
}
