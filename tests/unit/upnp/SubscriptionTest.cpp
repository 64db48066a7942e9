#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "http/Server.h"
#include "upnp/EventedLamp.h"
#include "upnp/Subscription.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* refused412 = "HTTP/1.1 412 Precondition Failed\r\n\r\n";

using Subscriptions = LampEvents;

// Promise [subscribe-time]: Subscription times from 1801 to 86400 seconds are granted as requested.
// Promise [subscribe-short]: A time shorter than 1801 seconds, no TIMEOUT, `Second-0` and a TIMEOUT
// that does not begin with `Second-` are granted 1800 seconds.
// Promise [subscribe-long]: A time longer than 86400 seconds, `Second-infinite` and a negative
// number, which wraps, are granted 86400 seconds.
// Promise [subscribe-digits]: What follows the digits of a TIMEOUT is not read: `Second-3600x` is
// granted 3600 seconds.
TEST(GrantedTime, LiesBetweenHalfAnHourAndADay) {
  const struct {
    const char* field;
    uint32_t granted;
  } rows[] = {
      {"", 1800},
      {"Second-300", 1800},
      {"Second-0", 1800},
      {"Second-1800", 1800},
      {"Second-1801", 1801},
      {"Second-3600", 3600},
      {"Second-86400", 86400},
      {"Second-86401", 86400},
      {"Second-100000", 86400},
      {"Second-99999999999", 86400},
      {"Second-infinite", 86400},
      {"Second-Infinite", 1800},  // no number
      {"Second-3600s", 3600},     // the number's end is not looked at
      {"Second-", 1800},
      {"second-3600", 1800},  // another unit
      {"3600", 1800},
      {"Second--5", 86400},  // the minus sign wraps
  };
  for (const auto& row : rows) EXPECT_EQ(grantedTime(row.field), row.granted) << row.field;
}

// Promise [event-seq-wrap]: SEQ goes from 4294967295 to 1; 0 is used once.
TEST(SubscriptionSeq, WrapsToOneAndNeverToZero) {
  EventedLamp lamp;
  Subscription subscription(lamp, "uuid:1");
  EXPECT_EQ(subscription.takeSeq(), 0U);
  EXPECT_EQ(subscription.takeSeq(), 1U);
  subscription.seq = 4294967295;
  EXPECT_EQ(subscription.takeSeq(), 4294967295U);
  EXPECT_EQ(subscription.takeSeq(), 1U);
  EXPECT_EQ(subscription.takeSeq(), 2U);
}

// Promise: A new or renewed subscription is answered with `HTTP/1.1 200 OK` and the fields `DATE`,
// `SERVER`, `SID` and `TIMEOUT: Second-<granted time>`, in this order, without a body.
// Promise: A new subscription logs `callback addr: <address>, port: <port>, path: <path>` and
// `subscribe: <service type>`.
TEST_F(Subscriptions, AnswersWithDateServerSidAndTimeout) {
  const Subscriber subscriber(platform);
  const HTTPMessage reply = lamp->subscribe(subscriber.subscribeRequest("Second-3600"));
  EXPECT_EQ(reply.startLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.fieldNames, (std::vector<std::string>{"DATE", "SERVER", "SID", "TIMEOUT"}));
  EXPECT_EQ(reply.getField("SERVER"), SERVER_STRING);
  EXPECT_EQ(reply.getField("TIMEOUT"), "Second-3600");
  EXPECT_TRUE(reply.body.empty());
  EXPECT_EQ(log.text(),
            "callback addr: 127.0.0.1, port: " + std::to_string(subscriber.listener.port) +
                ", path: /event\nsubscribe: urn:schemas-example:service:Lamp:1\n");
}

// Promise: A SID is `uuid:` and a UUID in lower case, new for each subscription.
TEST_F(Subscriptions, NamesThemselvesByALowerCaseUuid) {
  const std::string sid = subscribe(Subscriber(platform));
  ASSERT_EQ(sid.size(), 41U);
  EXPECT_EQ(sid.substr(0, 5), "uuid:");
  for (size_t i = 5; i < sid.size(); ++i) {
    const bool dash = i == 13 || i == 18 || i == 23 || i == 28;
    EXPECT_TRUE(dash ? sid[i] == '-' : std::string("0123456789abcdef").find(sid[i]) < 16) << sid;
  }
}

// Promise [subscribe-nt]: An NT that is not `upnp:event` gets 412.
TEST_F(Subscriptions, RefuseAWrongNt) {
  HTTPMessage request;
  request.addField("NT", "upnp:events");
  request.addField("CALLBACK", Subscriber(platform).callback());
  EXPECT_EQ(lamp->subscribe(request).get(), refused412);
  EXPECT_EQ(log.text(), "");
}

// Promise [subscribe-callback]: A CALLBACK that is missing, empty or not in `<` and `>` gets 412.
// Also proves [subscribe-url], [subscribe-control].
TEST_F(Subscriptions, RefuseABadCallback) {
  const struct {
    const char* callback;
    const char* why;
  } rows[] = {
      {"", "empty"},
      {"http://127.0.0.1:80/e", "no brackets"},
      {"<http://127.0.0.1:80/e", "no closing bracket"},
      {"http://127.0.0.1:80/e>", "no opening bracket"},
      {"<", "half a bracket pair"},
      {"<>", "nothing in it"},
      {"<http://127.0.0.1:80>", "no path"},
      {"<https://127.0.0.1:80/e>", "another scheme"},
      {"<HTTP://127.0.0.1:80/e>", "the scheme's case matters"},
      {"<http://127.0.0.1:80/e\nX: y>", "a line end, which would reach the NOTIFY"},
  };
  for (const auto& row : rows) {
    HTTPMessage request;
    request.addField("NT", "upnp:event");
    request.addField("CALLBACK", row.callback);
    EXPECT_EQ(lamp->subscribe(request).get(), refused412) << row.why;
  }
  HTTPMessage without;
  without.addField("NT", "upnp:event");
  EXPECT_EQ(lamp->subscribe(without).get(), refused412);
  EXPECT_EQ(linesOf("subscribe: urn:schemas-example:service:Lamp:1"), 0);
}

// Also proves [subscribe-address].
TEST_F(Subscriptions, AreGrantedToACallbackAtTheAddressZero) {
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", "<http://0.0.0.0:80/e>");
  EXPECT_EQ(lamp->subscribe(request).startLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(linesOf("callback addr: 0.0.0.0, port: 80, path: /e"), 1);
  EXPECT_EQ(lamp->subscribe(request).get(), refused412) << "a second one at that address";
  EXPECT_EQ(linesOf("subscribe: urn:schemas-example:service:Lamp:1"), 1);
}

// Promise: The first of several URLs in CALLBACK is the one that is used.
TEST_F(Subscriptions, TakeTheFirstOfSeveralCallbacks) {
  Subscriber first(platform);
  Subscriber other(platform, "127.0.0.2");
  HTTPMessage request;
  request.addField("NT", "upnp:event");
  request.addField("CALLBACK", first.callback() + other.callback());
  EXPECT_EQ(lamp->subscribe(request).startLine, "HTTP/1.1 200 OK");
  passInitialDelay();
  EXPECT_EQ(first.notify().getField("SEQ"), "0");
  EXPECT_TRUE(other.hearsNothing());
}

// Promise [subscription-address]: An address has at most one subscription to a service, whatever
// the port and path; a second one gets 412 until the first has ended.
// Promise: One refused for the number or the address has logged its `callback addr: ` line, but no
// `subscribe: ` line.
TEST_F(Subscriptions, AreOnePerAddressWhateverThePortAndPath) {
  const Subscriber subscriber(platform);
  const Subscriber otherPort(platform);
  const std::string sid = subscribe(subscriber);
  EXPECT_EQ(lamp->subscribe(otherPort.subscribeRequest()).get(), refused412);
  EXPECT_EQ(linesOf("callback addr: 127.0.0.1, port: " + std::to_string(otherPort.listener.port) +
                    ", path: /event"),
            1);
  EXPECT_EQ(linesOf("subscribe: urn:schemas-example:service:Lamp:1"), 1);
  EXPECT_EQ(unsubscribe(sid).get(), "HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_NE(subscribe(otherPort), "");
}

// Promise [subscription-limit]: A service has at most 100 subscriptions; the 101st gets 500.
TEST_F(Subscriptions, AreAtMostAHundred) {
  std::vector<std::unique_ptr<Subscriber>> subscribers;
  for (int i = 1; i <= 101; ++i) {
    subscribers.push_back(
        std::make_unique<Subscriber>(platform, ("127.0.1." + std::to_string(i)).c_str()));
  }
  for (int i = 0; i < 100; ++i) ASSERT_NE(subscribe(*subscribers[static_cast<size_t>(i)]), "") << i;
  const HTTPMessage late = lamp->subscribe(subscribers[100]->subscribeRequest());
  EXPECT_EQ(late.get(), "HTTP/1.1 500 Internal Server Error\r\n\r\n");
  EXPECT_EQ(linesOf("subscribe: urn:schemas-example:service:Lamp:1"), 100);
  EXPECT_TRUE(log.text().find("callback addr: 127.0.1.101, ") != std::string::npos);
}

// Promise [renewal]: A renewal keeps SID, callback and SEQ, sends no event, starts the granted time
// again and logs `resubscribe: <service type>`.
TEST_F(Subscriptions, AreRenewedUnderTheSameSidWithoutAnEvent) {
  Subscriber subscriber(platform);
  const std::string sid = subscribeAndHear(subscriber);
  const HTTPMessage reply = renew(sid, "Second-infinite");
  EXPECT_EQ(reply.startLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.getField("SID"), sid);
  EXPECT_EQ(reply.getField("TIMEOUT"), "Second-86400");
  EXPECT_EQ(linesOf("resubscribe: urn:schemas-example:service:Lamp:1"), 1);
  EXPECT_TRUE(subscriber.hearsNothing());
  lamp->setVar("Colour", "blue");
  EXPECT_EQ(subscriber.notify().getField("SEQ"), "1");
}

// Promise [renewal-unknown]: A renewal under an unknown SID, or none, gets 412.
TEST_F(Subscriptions, AreNotRenewedUnderAnUnknownSidOrNone) {
  EXPECT_EQ(renew("uuid:0").get(), refused412);
  EXPECT_EQ(lamp->subscribe(HTTPMessage()).get(), refused412);
}

// Promise: A request with NT is a new subscription, even when it has a SID too, which is then
// ignored.
TEST_F(Subscriptions, AreNewWhenTheRequestHasBothNtAndSid) {
  const std::string sid = subscribe(Subscriber(platform));
  HTTPMessage request = Subscriber(platform, "127.0.0.2").subscribeRequest();
  request.addField("SID", sid);
  EXPECT_NE(lamp->subscribe(request).getField("SID"), sid);
}

// Promise [subscription-end]: A subscription that is not renewed ends when its granted time is over
// and logs `subscription timeout: <SID>`.
// Promise [subscription-ended]: Renewal and UNSUBSCRIBE of a subscription that has run out get 412.
TEST_F(Subscriptions, EndAfterTheGrantedTime) {
  for (const uint32_t time : {1800U, 86400U}) {
    const std::string sid = subscribe(Subscriber(platform), "Second-" + std::to_string(time));
    platform.advance(std::chrono::seconds(time) - 10ms);
    EXPECT_EQ(linesOf("subscription timeout: " + sid), 0);
    platform.advance(10ms);
    EXPECT_EQ(linesOf("subscription timeout: " + sid), 1);
    EXPECT_EQ(renew(sid).get(), refused412);
    EXPECT_EQ(unsubscribe(sid).get(), refused412);
  }
}

// Also proves [renewal].
TEST_F(Subscriptions, LastTheirWholeTimeFromTheRenewalOn) {
  const std::string sid = subscribe(Subscriber(platform));
  platform.advance(1799s);
  renew(sid, "Second-3600");
  platform.advance(3600s - 10ms);
  EXPECT_EQ(linesOf("subscription timeout: " + sid), 0);
  platform.advance(10ms);
  EXPECT_EQ(linesOf("subscription timeout: " + sid), 1);
}

// Promise [unsubscribe]: UNSUBSCRIBE logs `unsubscribe` and is answered with a bare 200; no event
// follows.
// Promise [unsubscribe-unknown]: UNSUBSCRIBE of an unknown SID, or without one, gets 412.
TEST_F(Subscriptions, EndWhenUnsubscribed) {
  Subscriber subscriber(platform);
  const std::string sid = subscribeAndHear(subscriber);
  EXPECT_EQ(unsubscribe(sid).get(), "HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_EQ(linesOf("unsubscribe"), 1);
  EXPECT_EQ(unsubscribe(sid).get(), refused412);
  EXPECT_EQ(linesOf("unsubscribe"), 1);
  lamp->setVar("Colour", "blue");
  EXPECT_TRUE(subscriber.hearsNothing());
  platform.advance(1800s);
  EXPECT_EQ(linesOf("subscription timeout: " + sid), 0);
}

// Promise [subscription-off]: Switching the gateway off ends all subscriptions.
TEST_F(Subscriptions, EndTogetherWhenFlushed) {
  const std::string one = subscribe(Subscriber(platform));
  const std::string other = subscribe(Subscriber(platform, "127.0.0.2"));
  lamp->flushSubscriptions();
  EXPECT_EQ(renew(one).get(), refused412);
  EXPECT_EQ(renew(other).get(), refused412);
  platform.advance(1800s);
  EXPECT_EQ(log.text().find("subscription timeout"), std::string::npos);
}

TEST_F(Subscriptions, EndWithTheirService) {
  const std::string sid = subscribe(Subscriber(platform));
  lamp.reset();
  platform.advance(86400s);
  EXPECT_EQ(linesOf("subscription timeout: " + sid), 0);
}

}  // namespace
