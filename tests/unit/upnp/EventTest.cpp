#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <seccomp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "net/Address.h"
#include "support/RefusedCall.h"
#include "upnp/Event.h"
#include "upnp/EventedLamp.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* emptySet =
    "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"></e:propertyset>\r\n";

std::string setOf(const std::string& name, const std::string& value) {
  return "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\r\n  <e:property>\r\n    <" +
         name + ">" + value + "</" + name + ">\r\n  </e:property>\r\n</e:propertyset>\r\n";
}

using Events = LampEvents;

// Promise: A NOTIFY is `NOTIFY <path> HTTP/1.1` with the fields `HOST: <address>:<port>`,
// `CONTENT-TYPE: text/xml`, `CONTENT-LENGTH`, `NT: upnp:event`, `NTS: upnp:propchange`, `SID` and
// `SEQ`, in this order.
// Promise: The body of a NOTIFY is an `e:propertyset` with
// `xmlns:e="urn:schemas-upnp-org:event-1-0"`, without an XML declaration; each variable has its own
// `e:property`.
// Promise [event-initial]: A new subscriber is sent the initial event: every evented variable that
// has a value, in the byte order of the names.
TEST_F(Events, CarryEveryEventedVariableThatHasAValueAtFirst) {
  Subscriber subscriber(platform);
  const std::string sid = subscribe(subscriber);
  passInitialDelay();
  ASSERT_TRUE(subscriber.accept());
  const std::string body =
      "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\r\n"
      "  <e:property>\r\n    <Colour>red</Colour>\r\n  </e:property>\r\n"
      "  <e:property>\r\n    <State>Off</State>\r\n  </e:property>\r\n"
      "</e:propertyset>\r\n";
  EXPECT_EQ(subscriber.receive(),
            "NOTIFY /event HTTP/1.1\r\n"
            "HOST: 127.0.0.1:" +
                std::to_string(subscriber.listener.port) +
                "\r\n"
                "CONTENT-TYPE: text/xml\r\n"
                "CONTENT-LENGTH: " +
                std::to_string(body.size()) +
                "\r\n"
                "NT: upnp:event\r\n"
                "NTS: upnp:propchange\r\n"
                "SID: " +
                sid +
                "\r\n"
                "SEQ: 0\r\n\r\n" +
                body);
  EXPECT_EQ(linesOf("notify: Colour = 'red'"), 1);
  EXPECT_EQ(linesOf("notify: State = 'Off'"), 1);
}

// Promise: Where no evented variable has a value, the initial event is an empty `e:propertyset`.
TEST_F(Events, AreEmptyAtFirstWhenNothingHasAValue) {
  class Bare : public Service {
   public:
    Bare() : Service("urn:schemas-example:service:Bare:1") { addVar("State", {VAR_STRING, true}); }
  };
  Bare bare;
  Subscriber subscriber(platform);
  ASSERT_EQ(bare.subscribe(subscriber.subscribeRequest()).startLine, "HTTP/1.1 200 OK");
  passInitialDelay();
  EXPECT_EQ(subscriber.notify().body, emptySet);
}

// Promise [event-delay]: The connection for the initial event is opened with the answer to
// SUBSCRIBE; the event is written some 50 ms later, when the control point has had time to note its
// SID.
TEST_F(Events, AreConnectedAtOnceButWrittenAfterTheAnswerHasSettled) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  platform.advance(initialDelay - 10ms);
  EXPECT_EQ(lm::test::readAvailable(subscriber.connection.get()), "");
  platform.advance(10ms);
  EXPECT_NE(subscriber.receive(), "");
}

// Promise [event-second]: A change right after SUBSCRIBE waits for the initial event and comes
// second, with SEQ 1.
// Promise: Connections that a subscriber takes in the order of the changes bring the changes in
// that order.
// Also proves [event-seq].
TEST_F(Events, OfAChangeRightAfterSubscribingComeSecond) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  lamp->setVar("Colour", "blue");
  lamp->setVar("State", "On");
  platform.turn();
  passInitialDelay();
  EXPECT_EQ(subscriber.notifyAndAnswer().getField("SEQ"), "0");
  const HTTPMessage colour = subscriber.notifyAndAnswer();
  EXPECT_EQ(colour.getField("SEQ"), "1");
  EXPECT_EQ(colour.body, setOf("Colour", "blue"));
  const HTTPMessage state = subscriber.notifyAndAnswer();
  EXPECT_EQ(state.getField("SEQ"), "2");
  EXPECT_EQ(state.body, setOf("State", "On"));
}

// Promise: A NOTIFY that was made but could not be written has used up its SEQ.
// Promise: When the initial event is dropped, the changes after it are sent.
TEST_F(Events, GoOnWhenTheInitialOneIsDropped) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  subscriber.reset();
  lamp->setVar("Colour", "blue");
  passInitialDelay();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
  EXPECT_TRUE(log.text().ends_with("write failed\nnotify timeout\nnotify: Colour = 'blue'\n"))
      << log.text();
}

// Promise [event-change]: A change is sent as one property, to the subscribers of that service
// only.
// Promise: Each property that is written logs `notify: <name> = '<value>'`.
TEST_F(Events, ReportAChangedVariable) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("State", "On");
  const HTTPMessage notify = subscriber.notify();
  EXPECT_EQ(notify.getField("SEQ"), "1");
  EXPECT_EQ(notify.body, setOf("State", "On"));
  EXPECT_EQ(linesOf("notify: State = 'On'"), 1);
}

// Promise: Setting a value that a variable has already sends no event.
// Promise: Setting the empty text where there was no value sends no event.
// Promise: A variable that is not evented never sends an event.
TEST_F(Events, LeaveOutWhatDidNotChangeOrIsNotEvented) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("State", "Off");
  lamp->setVar("Hours", "8");
  lamp->setVar("Brightness", "");
  lamp->setVar("Weight", "1");
  EXPECT_TRUE(subscriber.hearsNothing());
}

// Promise [event-value]: The value sent is that of the moment of writing: of two quick changes both
// deliveries carry the second value, with consecutive SEQ.
TEST_F(Events, CarryTheValueAtTheTimeTheyAreWritten) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("Colour", "blue");
  lamp->setVar("Colour", "green");
  for (const char* seq : {"1", "2"}) {
    const HTTPMessage notify = subscriber.notifyAndAnswer();
    EXPECT_EQ(notify.getField("SEQ"), seq);
    EXPECT_EQ(notify.body, setOf("Colour", "green"));
  }
  EXPECT_TRUE(subscriber.hearsNothing());
}

// Promise: Every change of an evented variable is delivered to every subscriber at once, one
// delivery each, in the order of their SIDs.
TEST_F(Events, ReachEverySubscriber) {
  Subscriber one(platform);
  Subscriber other(platform, "127.0.0.2");
  subscribeAndHear(one);
  subscribeAndHear(other);
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(one.notify().body, setOf("Colour", "blue"));
  EXPECT_EQ(other.notify().body, setOf("Colour", "blue"));
}

TEST_F(Events, AreStartedInTheOrderOfTheSids) {
  // One listener on all addresses: it takes connections in the order in which they are made.
  const lm::test::TcpListener listener(128, "0.0.0.0");
  std::map<std::string, std::string> addresses;  // by SID
  for (int i = 1; i <= 20; ++i) {
    const std::string address = "127.0.2." + std::to_string(i);
    HTTPMessage request;
    request.addField("NT", "upnp:event");
    request.addField("CALLBACK",
                     "<http://" + address + ":" + std::to_string(listener.port) + "/e>");
    addresses[lamp->subscribe(request).getField("SID")] = address;
  }
  const auto takeAll = [&listener] {
    std::vector<std::string> taken;
    while (true) {
      const lm::Fd fd(accept4(listener.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!fd.valid()) return taken;
      sockaddr_in called = {};
      socklen_t length = sizeof called;
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&called), &length);
      taken.push_back(iptostr(called.sin_addr.s_addr));
    }
  };
  EXPECT_EQ(takeAll().size(), 20U);  // the initial ones
  lamp->setVar("Colour", "blue");
  std::vector<std::string> inOrder;
  inOrder.reserve(addresses.size());
  for (const auto& [sid, address] : addresses) inOrder.push_back(address);
  EXPECT_EQ(takeAll(), inOrder);
}

// Promise: A delivery ends, and its connection is closed, when the subscriber has answered.
TEST_F(Events, EndWithTheSubscribersReply) {
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  subscriber.answer();
  EXPECT_TRUE(subscriber.closedByService());
  platform.advance(30s);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  EXPECT_EQ(log.text().find("bad notify reply"), std::string::npos);
}

// Promise: An answer whose status is not `200` logs `bad notify reply: ` with its start line; later
// changes are still sent.
// Also proves [subscription-failures].
TEST_F(Events, EndWithABadReplyAndTheNextOneIsStillSent) {
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  subscriber.answer("HTTP/1.1 412 Precondition Failed\r\n\r\n");
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("bad notify reply: HTTP/1.1 412 Precondition Failed"), 1);
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

// Promise [event-answer]: An answer is judged by its first piece, of at most 4096 bytes; the rest
// is not waited for.
TEST_F(Events, JudgeTheReplyByItsFirstPiece) {
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  subscriber.answer("H");
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("bad notify reply: "), 1);
}

// Promise [event-timeout]: A delivery that has no answer 30 seconds after its start is given up and
// logs `notify timeout`.
TEST_F(Events, AreGivenUpWhenTheSubscriberDoesNotAnswerForThirtySeconds) {
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  platform.advance(30s - initialDelay - 10ms);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  platform.advance(10ms);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_TRUE(subscriber.closedByService());
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

// Promise [event-connect]: A delivery whose connection is not made within 30 seconds is given up
// and logs `notify timeout`.
TEST_F(Events, AreGivenUpWhenTheConnectionIsNotMadeInThirtySeconds) {
  const lm::test::TcpListener full(0);  // its queue holds one client
  const lm::Fd client = full.connect();
  ASSERT_TRUE(lm::test::waitFor(client.get(), POLLOUT));
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://127.0.0.1:" + std::to_string(full.port) + "/e>");
  const std::string sid = lamp->subscribe(request).getField("SID");
  platform.advance(30s - 10ms);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  platform.advance(10ms);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_EQ(linesOf("notify: Colour = 'red'"), 0) << "nothing was written";
  EXPECT_EQ(renew(sid).startLine, "HTTP/1.1 200 OK");
}

TEST_F(Events, AcceptAReplyThatArrivedWhileACallbackTookThirtySeconds) {
  struct Busy {
    void ready(int fd) {
      lm::test::readAvailable(fd);
      platform.clock().advance(30s);
      subscriber.answer();
    }
    lm::test::TestPlatform& platform;
    Subscriber& subscriber;
  };
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  Busy busy{platform, subscriber};
  const lm::test::SocketPair pair(SOCK_STREAM);
  lm::Watch watch;
  watch.start<&Busy::ready>(pair.ours.get(), busy, lm::watchRead);
  ASSERT_TRUE(lm::test::writeText(pair.peer.get(), "x"));
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("notify timeout"), 0);
}

// Promise [event-reset]: A subscriber that closes or resets without an answer is reported with
// `notify reply read failed`, at once and then at most ten times a second, until the 30 seconds are
// over.
TEST_F(Events, ReportASubscriberThatClosesUnansweredUntilTheTimeLimit) {
  Subscriber subscriber(platform);
  takeInitialEvent(subscriber);
  subscriber.connection.reset();
  ASSERT_TRUE(platform.turnUntil([&] { return linesOf("notify reply read failed") >= 2; }));
  for (int i = 0; i < 10; ++i) {
    platform.advance(100ms);
    platform.turn();
  }
  EXPECT_GE(linesOf("notify reply read failed"), 10);
  EXPECT_LE(linesOf("notify reply read failed"), 13);
  platform.advance(30s);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  const int reported = linesOf("notify reply read failed");
  platform.advance(10s);
  platform.turn();
  EXPECT_EQ(linesOf("notify reply read failed"), reported);
}

// Promise: A subscriber that refuses the connection, or is not there, logs `write failed` and
// `notify timeout`.
TEST_F(Events, AreDroppedWhenTheSubscriberRefusesTheConnection) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  subscriber.leave();
  lamp->setVar("Colour", "blue");
  ASSERT_TRUE(platform.turnUntil([&] { return linesOf("notify timeout") == 1; }));
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify: Colour = 'blue'"), 1);
}

// Promise [subscription-failures]: Failed deliveries do not end a subscription.
// Promise: A connection that fails at once logs `tcp connect: ` with the system's error text.
TEST_F(Events, ThatCannotBeStartedAreReportedAndTheSubscriptionIsKept) {
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://45.45.45.45:80/e>");  // no route in this network
  const std::string sid = lamp->subscribe(request).getField("SID");
  EXPECT_EQ(linesOf(std::string("tcp connect: ") + strerror(ENETUNREACH)), 1);
  EXPECT_EQ(renew(sid).startLine, "HTTP/1.1 200 OK");
}

// Promise: A socket that cannot be made logs `tcp socket: ` with the error text.
TEST_F(Events, ReportASocketThatCannotBeMade) {
  Subscriber subscriber(platform);
  whileRefused({SCMP_SYS(socket)}, EMFILE, [&] { subscribe(subscriber); });
  EXPECT_EQ(linesOf(std::string("tcp socket: ") + strerror(EMFILE)), 1);
}

// Promise: A socket that cannot be made non-blocking logs `fcntl O_NONBLOCK: ` with the error text,
// and nothing is delivered.
TEST_F(Events, ReportASocketThatCannotBeMadeNonBlocking) {
  Subscriber subscriber(platform);
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}, EINVAL, [&] { subscribe(subscriber); });
  EXPECT_EQ(linesOf("fcntl O_NONBLOCK: Invalid argument"), 1);
  EXPECT_TRUE(subscriber.hearsNothing());
}

// Promise: A socket that cannot be made blocking again logs `fcntl 0: ` with the error text and
// `notify timeout`.
TEST_F(Events, AreDroppedWhenTheSocketCannotBeMadeBlocking) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  platform.turn();
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_RDWR}, EINVAL, [&] { passInitialDelay(); });
  EXPECT_EQ(linesOf("fcntl 0: Invalid argument"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
}

// Promise: A NOTIFY is written once: one that is interrupted before anything was taken logs `write
// failed` and `notify timeout`.
TEST_F(Events, AreWrittenOnlyOnce) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  alarm(10);  // ends the test if it tries again and again
  whileRefused({SCMP_SYS(sendto)}, EINTR, [&] { passInitialDelay(); });
  alarm(0);
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_TRUE(subscriber.closedByService());
}

// Promise: A NOTIFY that the send buffer does not take at once is given up when the buffer cannot
// be enlarged or the write limited in time; it logs `setsockopt SO_SNDBUF: ` or `setsockopt
// SO_SNDTIMEO: ` with the error text, `write failed` and `notify timeout`.
TEST_F(Events, AreDroppedWhenTheWriteCouldBlock) {
  Subscriber subscriber(platform);
  subscriber.makeWindowSmall();
  lamp->setVar("Colour", std::string(12UL << 20, 'x'));  // more than the send buffer takes
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, SO_SNDTIMEO}, EPERM, [&] { passInitialDelay(); });
  EXPECT_EQ(linesOf("setsockopt SO_SNDTIMEO: Operation not permitted"), 1);
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
}

// Promise: A delivery whose subscription has ended meanwhile is dropped with `notify timeout`,
// before anything is written.
TEST_F(Events, OfASubscriptionThatEndedMeanwhileAreDropped) {
  Subscriber subscriber(platform);
  const std::string sid = subscribeAndHear(subscriber);
  lamp->setVar("Colour", "blue");
  unsubscribe(sid);
  platform.turn();
  EXPECT_EQ(linesOf("notify timeout"), 1);
  ASSERT_TRUE(subscriber.accept());
  EXPECT_TRUE(subscriber.closedByService());
}

TEST_F(Events, ThatWaitForTheirTurnAreDroppedWithTheirSubscription) {
  Subscriber subscriber(platform);
  const std::string sid = subscribe(subscriber);
  lamp->setVar("Colour", "blue");
  platform.turn();
  unsubscribe(sid);
  EXPECT_EQ(linesOf("notify timeout"), 2);
  passInitialDelay();
  EXPECT_EQ(linesOf("notify timeout"), 2);
}

// Promise: A delivery whose variable has lost its value logs `variable has no value` and `notify
// timeout`, and uses up no SEQ.
TEST_F(Events, OfAVariableThatLostItsValueAreDropped) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("Brightness", "10");
  lamp->brightness->clearValue();
  platform.turn();
  EXPECT_EQ(linesOf("variable has no value"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  lamp->setVar("Colour", "blue");
  ASSERT_TRUE(subscriber.accept());  // the dropped one
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

// Promise: Whether a variable is evented is not looked at again when its event is written.
TEST_F(Events, OfAVariableThatIsNoLongerEventedAreStillSent) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("Brightness", "10");
  lamp->brightness->evented = false;
  EXPECT_EQ(subscriber.notifyAndAnswer().body, setOf("Brightness", "10"));
}

// Promise [event-room]: A NOTIFY for which the system has no room is waited for 10 ms; then the log
// has `write failed` and `notify timeout`.
TEST_F(Events, ToASubscriberThatDoesNotReadStallTheLoopForAMomentOnly) {
  Subscriber subscriber(platform);
  subscriber.makeWindowSmall();
  lamp->setVar("Colour", std::string(12UL << 20, 'x'));  // more than the send buffer takes
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  const auto before = std::chrono::steady_clock::now();
  passInitialDelay();
  const auto took = std::chrono::steady_clock::now() - before;
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_LT(took, std::chrono::seconds(30));  // without a limit it would take for ever
}

// Promise: A service that ends closes its deliveries and forgets its subscriptions without a word.
TEST_F(Events, InFlightEndWithTheirService) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  lamp->setVar("Colour", "blue");
  ASSERT_TRUE(subscriber.accept());
  lamp.reset();
  EXPECT_TRUE(subscriber.closedByService());
  platform.advance(30s);
  EXPECT_EQ(linesOf("notify timeout"), 0);
}

}  // namespace
