#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <seccomp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "http/Text.h"
#include "support/RefusedCall.h"
#include "upnp/Event.h"
#include "upnp/EventedLamp.h"

namespace {

constexpr uint64_t second = 100;  // in hundredths
constexpr const char* emptySet =
    "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"></e:propertyset>\r\n";

std::string setOf(const std::string& name, const std::string& value) {
  return "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\r\n  <e:property>\r\n    <" +
         name + ">" + value + "</" + name + ">\r\n  </e:property>\r\n</e:propertyset>\r\n";
}

using Events = LampEvents;

TEST_F(Events, CarryEveryEventedVariableThatHasAValueAtFirst) {
  Subscriber subscriber(platform);
  const std::string sid = subscribe(subscriber);
  passHoldBack();
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

TEST_F(Events, AreEmptyAtFirstWhenNothingHasAValue) {
  class Bare : public Service {
   public:
    Bare() : Service("urn:schemas-example:service:Bare:1") { addVar("State", {VAR_STRING, true}); }
  };
  Bare bare;
  Subscriber subscriber(platform);
  ASSERT_EQ(bare.subscribe(subscriber.subscribeRequest()).startLine, "HTTP/1.1 200 OK");
  passHoldBack();
  EXPECT_EQ(subscriber.notify().body, emptySet);
}

TEST_F(Events, AreConnectedAtOnceButWrittenAfterTheAnswerHasSettled) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  platform.advance(Subscription::holdBackTime - 1);
  EXPECT_EQ(lm::test::readAvailable(subscriber.connection.get()), "");
  platform.advance(1);
  EXPECT_NE(subscriber.receive(), "");
}

TEST_F(Events, OfAChangeRightAfterSubscribingComeSecond) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  lamp->setVar("Colour", "blue");
  lamp->setVar("State", "On");
  platform.turn();
  passHoldBack();
  EXPECT_EQ(subscriber.notifyAndAnswer().getField("SEQ"), "0");
  const HTTPMessage colour = subscriber.notifyAndAnswer();
  EXPECT_EQ(colour.getField("SEQ"), "1");
  EXPECT_EQ(colour.body, setOf("Colour", "blue"));
  const HTTPMessage state = subscriber.notifyAndAnswer();
  EXPECT_EQ(state.getField("SEQ"), "2");
  EXPECT_EQ(state.body, setOf("State", "On"));
}

TEST_F(Events, GoOnWhenTheInitialOneIsDropped) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  subscriber.reset();
  lamp->setVar("Colour", "blue");
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
  EXPECT_TRUE(log.text().ends_with("write failed\nnotify timeout\nnotify: Colour = 'blue'\n"))
      << log.text();
}

TEST_F(Events, TellOfAChangedVariable) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("State", "On");
  const HTTPMessage notify = subscriber.notify();
  EXPECT_EQ(notify.getField("SEQ"), "1");
  EXPECT_EQ(notify.body, setOf("State", "On"));
  EXPECT_EQ(linesOf("notify: State = 'On'"), 1);
}

TEST_F(Events, TellNothingOfWhatDidNotChangeOrIsNotEvented) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("State", "Off");
  lamp->setVar("Hours", "8");
  lamp->setVar("Brightness", "");
  lamp->setVar("Weight", "1");
  EXPECT_TRUE(subscriber.hearsNothing());
}

TEST_F(Events, CarryTheValueOfTheMomentTheyAreWritten) {
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

TEST_F(Events, EndWithTheSubscribersReply) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "0");
  subscriber.answer();
  EXPECT_TRUE(subscriber.closedByService());
  platform.advance(30 * second);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  EXPECT_EQ(log.text().find("bad notify reply"), std::string::npos);
}

TEST_F(Events, EndWithABadReplyAndTheNextOneIsStillSent) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "0");
  subscriber.answer("HTTP/1.1 412 Precondition Failed\r\n\r\n");
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("bad notify reply: HTTP/1.1 412 Precondition Failed"), 1);
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

TEST_F(Events, JudgeTheReplyByItsFirstPiece) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "0");
  subscriber.answer("H");
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("bad notify reply: "), 1);
}

TEST_F(Events, AreGivenUpWhenNobodyAnswersForThirtySeconds) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "0");
  platform.advance(30 * second - Subscription::holdBackTime - 1);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  platform.advance(1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_TRUE(subscriber.closedByService());
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

TEST_F(Events, AreGivenUpWhenTheConnectionIsNotMadeInThirtySeconds) {
  const lm::test::TcpListener full(0);  // its queue holds one client
  const lm::Fd client = full.connect();
  ASSERT_TRUE(lm::test::waitFor(client.get(), POLLOUT));
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://127.0.0.1:" + std::to_string(full.port) + "/e>");
  const std::string sid = lamp->subscribe(request).getField("SID");
  platform.advance(30 * second - 1);
  EXPECT_EQ(linesOf("notify timeout"), 0);
  platform.advance(1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_EQ(linesOf("notify: Colour = 'red'"), 0) << "nothing was written";
  EXPECT_EQ(renew(sid).startLine, "HTTP/1.1 200 OK");
}

TEST_F(Events, HearAReplyThatArrivedWhileACallbackTookThirtySeconds) {
  struct Busy {
    void ready(int fd) {
      lm::test::readAvailable(fd);
      platform.clock().advance(30'000);
      subscriber.answer();
    }
    lm::test::TestPlatform& platform;
    Subscriber& subscriber;
  };
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  ASSERT_EQ(subscriber.notify().getField("SEQ"), "0");
  Busy busy{platform, subscriber};
  const lm::test::SocketPair pair(SOCK_STREAM);
  lm::Watch watch;
  watch.start<&Busy::ready>(pair.ours.get(), busy, lm::watchRead);
  ASSERT_TRUE(lm::test::writeText(pair.peer.get(), "x"));
  EXPECT_TRUE(subscriber.closedByService());
  EXPECT_EQ(linesOf("notify timeout"), 0);
}

TEST_F(Events, ReportASubscriberThatClosesUnansweredAgainAndAgainUntilTheirTimeIsOver) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  passHoldBack();
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "0");
  subscriber.connection.reset();
  ASSERT_TRUE(platform.turnUntil([&] { return linesOf("notify reply read failed") >= 2; }));
  for (int i = 0; i < 10; ++i) {
    platform.advance(10);
    platform.turn();
  }
  EXPECT_GE(linesOf("notify reply read failed"), 10);
  EXPECT_LE(linesOf("notify reply read failed"), 13);
  platform.advance(30 * second);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  const int reported = linesOf("notify reply read failed");
  platform.advance(10 * second);
  platform.turn();
  EXPECT_EQ(linesOf("notify reply read failed"), reported);
}

TEST_F(Events, AreDroppedWhenTheSubscriberRefusesTheConnection) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  subscriber.leave();
  lamp->setVar("Colour", "blue");
  ASSERT_TRUE(platform.turnUntil([&] { return linesOf("notify timeout") == 1; }));
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify: Colour = 'blue'"), 1);
}

TEST_F(Events, ThatCannotBeStartedAreReportedAndTheSubscriptionIsKept) {
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://45.45.45.45:80/e>");  // no route in this network
  const std::string sid = lamp->subscribe(request).getField("SID");
  EXPECT_EQ(linesOf("tcp connect: Network is unreachable"), 1);
  EXPECT_EQ(renew(sid).startLine, "HTTP/1.1 200 OK");
}

TEST_F(Events, ReportASocketThatCannotBeMade) {
  Subscriber subscriber(platform);
  whileRefused({SCMP_SYS(socket)}, EMFILE, [&] { subscribe(subscriber); });
  EXPECT_EQ(linesOf("tcp socket: Too many open files"), 1);
}

TEST_F(Events, ReportASocketThatCannotBeSwitchedToNotBlocking) {
  Subscriber subscriber(platform);
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_NONBLOCK}, EINVAL, [&] { subscribe(subscriber); });
  EXPECT_EQ(linesOf("fcntl O_NONBLOCK: Invalid argument"), 1);
  EXPECT_TRUE(subscriber.hearsNothing());
}

TEST_F(Events, AreDroppedWhenTheSocketCannotBeSwitchedToBlocking) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  platform.turn();
  whileRefused({SCMP_SYS(fcntl), F_SETFL, O_RDWR}, EINVAL, [&] { passHoldBack(); });
  EXPECT_EQ(linesOf("fcntl 0: Invalid argument"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
}

TEST_F(Events, AreWrittenOnceOnly) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  alarm(10);  // ends the test if it tries again and again
  whileRefused({SCMP_SYS(sendto)}, EINTR, [&] { passHoldBack(); });
  alarm(0);
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_TRUE(subscriber.closedByService());
}

TEST_F(Events, AreDroppedWhenTheWriteCouldHaveToWait) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, SO_SNDTIMEO}, EPERM, [&] { passHoldBack(); });
  EXPECT_EQ(linesOf("setsockopt SO_SNDTIMEO: Operation not permitted"), 1);
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_EQ(linesOf("notify timeout"), 1);
  EXPECT_TRUE(subscriber.closedByService());
}

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
  passHoldBack();
  EXPECT_EQ(linesOf("notify timeout"), 2);
}

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

TEST_F(Events, OfAVariableThatIsNoLongerEventedAreSentAllTheSame) {
  Subscriber subscriber(platform);
  subscribeAndHear(subscriber);
  lamp->setVar("Brightness", "10");
  lamp->brightness->evented = false;
  EXPECT_EQ(subscriber.notifyAndAnswer().body, setOf("Brightness", "10"));
}

TEST_F(Events, ToASubscriberThatDoesNotReadStallTheLoopForAMomentOnly) {
  Subscriber subscriber(platform);
  const int smallest = 1;
  setsockopt(subscriber.listener.fd.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
  lamp->setVar("Colour", std::string(12UL << 20, 'x'));  // more than the send buffer takes
  subscribe(subscriber);
  ASSERT_TRUE(subscriber.accept());
  const auto before = std::chrono::steady_clock::now();
  passHoldBack();
  const auto took = std::chrono::steady_clock::now() - before;
  EXPECT_EQ(linesOf("write failed"), 1);
  EXPECT_LT(took, std::chrono::seconds(30));  // without a limit it would take for ever
}

TEST_F(Events, InFlightEndWithTheirService) {
  Subscriber subscriber(platform);
  subscribe(subscriber);
  lamp->setVar("Colour", "blue");
  ASSERT_TRUE(subscriber.accept());
  lamp.reset();
  EXPECT_TRUE(subscriber.closedByService());
  platform.advance(30 * second);
  EXPECT_EQ(linesOf("notify timeout"), 0);
}

}  // namespace
