#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* headings =
    "WHEN                 EVENT    PORT       ON ADDRESS       TO                     WHO          "
    "  "
    "WHY\n";

lm::nat::LogRecord event(uint32_t id, lm::nat::Event what = lm::nat::Event::opened) {
  return {.id = id,
          .event = static_cast<uint32_t>(what),
          .time = 1709251198007,
          .owner = "upnp",
          .user = 104,
          .protocol = 6,
          .address = inet_addr("45.45.45.1"),
          .port = 8080,
          .client = inet_addr("192.168.88.10"),
          .clientPort = 80};
}

std::string openedLine(const std::string& port = "8080/tcp ") {
  return "2024-03-01 00:59:58  opened   " + port +
         "  45.45.45.1       192.168.88.10:80       upnp\n";
}

struct PortLog : testing::Test {
  PortLog() {
    setenv("TZ", "CET-1", 1);
    tzset();
  }

  FakePlatform router;
};

// Promise: `nat log` prints what happened to ports, page by page, the oldest first:
// the local time, the event, the port, its client, who asked and why.
TEST_F(PortLog, ShowsWhatHappenedToPorts) {
  router.sendsShortPages();
  router.hadPortEvent(event(1));
  lm::nat::LogRecord refused = event(2, lm::nat::Event::refused);
  refused.protocol = 17;
  refused.port = 80;
  refused.reason = "external port 80 is not allowed by the policy";
  router.hadPortEvent(refused);
  lm::nat::LogRecord closed = event(7, lm::nat::Event::closed);
  closed.owner = "administrator";
  closed.user = 1000;
  router.hadPortEvent(closed);
  lm::nat::LogRecord odd = event(8, lm::nat::Event{9});
  odd.protocol = 132;
  odd.reason = "\x1b[2J";
  router.hadPortEvent(odd);
  const auto result = router.lumenctl({"nat", "log"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            headings + openedLine() +
                "2024-03-01 00:59:58  refused  80/udp     45.45.45.1       192.168.88.10:80       "
                "upnp           external port 80 is not allowed by the policy\n"
                "2024-03-01 00:59:58  closed   8080/tcp   45.45.45.1       192.168.88.10:80       "
                "administrator user1000\n"
                "2024-03-01 00:59:58  9        8080/132   45.45.45.1       192.168.88.10:80       "
                "upnp           \\x1b[2J\n");
}

// Promise: `nat log` shows what happened to ports of IPv6 hosts among the others.
TEST_F(PortLog, ShowsWhatHappenedToAPortOfAnIpv6Host) {
  const lm::nat::LogRecord opened = {.id = 1,
                                     .event = 1,
                                     .time = 1709251198007,
                                     .owner = "pcp",
                                     .protocol = 17,
                                     .port = 5060,
                                     .host = "2001:db8::10"};
  router.hadPortEvent(opened);
  EXPECT_EQ(router.lumenctl({"nat", "log"}).out,
            std::string(headings) +
                "2024-03-01 00:59:58  opened   5060/udp   -                [2001:db8::10]:5060    "
                "pcp\n");
  const std::string json = router.lumenctl({"nat", "log", "--json"}).out;
  EXPECT_NE(json.find("\"address\": \"\",\n    \"client\": \"2001:db8::10\",\n"
                      "    \"client_port\": 5060,"),
            std::string::npos)
      << json;
}

TEST_F(PortLog, SaysThatNothingHappened) {
  EXPECT_EQ(router.lumenctl({"nat", "log"}).out,
            "Nothing has happened to ports since lumend started.\n");
  EXPECT_EQ(router.lumenctl({"nat", "log", "--json"}).out, "[]\n");
}

TEST_F(PortLog, IsAlsoForPrograms) {
  router.hadPortEvent(event(1));
  EXPECT_EQ(router.lumenctl({"nat", "log", "--json"}).out,
            "[\n  {\n    \"id\": 1,\n    \"time\": 1709251198.007,\n    \"event\": \"opened\",\n"
            "    \"port\": 8080,\n    \"protocol\": \"tcp\",\n    \"address\": \"45.45.45.1\",\n"
            "    \"client\": \"192.168.88.10\",\n    \"client_port\": 80,\n"
            "    \"who\": \"upnp\",\n    \"user\": \"user104\",\n    \"reason\": \"\"\n  }\n]\n");
}

// Promise [ctl-log-follow]: `nat log --follow` goes on with each event as it is notified, once,
// until SIGINT or SIGTERM, which end it with 0; the end of the platform ends it with 1.
TEST_F(PortLog, FollowsWhatHappens) {
  router.hadPortEvent(event(1));
  router.hadPortEvent(event(2));
  router.hadPortEvent(event(2), true);  // it came while the list was read
  lm::nat::LogRecord next = event(3);
  next.port = 8081;
  router.hadPortEvent(next, true);
  const auto result = router.lumenctl({"nat", "log", "--follow"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, headings + openedLine() + openedLine() + openedLine("8081/tcp "));
  EXPECT_EQ(router.requests().front(), "[0] 11 08000001=16646155 88000002=");
}

TEST_F(PortLog, FollowsAlsoWhenNumbersBeginAgain) {
  router.hadPortEvent(event(4'000'000'000));
  router.hadPortEvent(event(4'000'000'001), true);
  router.hadPortEvent(event(10'001), true);
  const auto result = router.lumenctl({"nat", "log", "--follow"});
  EXPECT_EQ(result.out, headings + openedLine() + openedLine() + openedLine());
}

// Also proves [ctl-log-follow].
TEST_F(PortLog, EndsWith1WhenThePlatformEnds) {
  router.hadPortEvent(event(1), true);
  router.ends();
  const auto result = router.lumenctl({"nat", "log", "--follow", "--json"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            R"({"id":1,"time":1709251198.007,"event":"opened","port":8080,"protocol":"tcp",)"
            R"("address":"45.45.45.1","client":"192.168.88.10","client_port":80,"who":"upnp",)"
            R"("user":"user104","reason":""})"
            "\n");
  EXPECT_EQ(result.err, "lumenctl: the platform has ended\n");
}

TEST_F(PortLog, PassesOnWhyItIsRefused) {
  router.refuses({0}, lm::broker::cmd::subscribe, "not permitted");
  EXPECT_EQ(router.lumenctl({"nat", "log", "--follow"}).err, "lumenctl: not permitted\n");
  router.refuses({20, 6}, lm::cmd::readAll, "no such handler");
  EXPECT_EQ(router.lumenctl({"nat", "log"}).err, "lumenctl: no such handler\n");
}

TEST_F(PortLog, SaysThatItsLinesCannotBeWritten) {
  router.hadPortEvent(event(1));
  router.standardOutputIsFull();
  const auto result = router.lumenctl({"nat", "log", "--follow"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: standard output cannot be written\n");
}

}  // namespace
}  // namespace lumenctl
