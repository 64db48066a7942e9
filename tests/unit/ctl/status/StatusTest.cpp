#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ctl/FakePlatform.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Interfaces.h"

namespace lumenctl {
namespace {

using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

/// A router at work, with one open port.
struct Status : testing::Test {
  Status() {
    router.hasLink("br-lan", 2);
    router.hasLink("wan0", 1);
    router.hasLink("eth9");
    router.hasAddress("br-lan", "192.168.88.1");
    router.hasAddress("wan0", "45.45.45.1");
    router.gatewayUses("br-lan", 2);
    router.gatewayUses("wan0", 1);
    router.hasPort(8080, 6, "192.168.88.10", 80);
  }
  std::string firstLine() {
    const auto result = router.lumenctl({"status"});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out.substr(0, result.out.find('\n'));
  }
  /// The gateway has a socket at each of these ports, with the inodes 1 and 2.
  void gatewayListensAt(int udp, int tcp) {
    const auto line = [](int port, const char* state, int inode) {
      std::ostringstream text;
      text << " 1: 00000000:" << std::hex << std::uppercase << std::setw(4) << std::setfill('0')
           << port << " 00000000:0000 " << state << " 0:0 0:0 0 64040 0 " << inode << " 2\n";
      return text.str();
    };
    router.machine().files = {{"/proc/4711/status", "Name:\tx\nUid:\t64040\t64040\t0\t0\n"},
                              {"/proc/4711/net/udp", line(udp, "07", 1)},
                              {"/proc/4711/net/tcp", line(tcp, "0A", 2)}};
  }
  FakePlatform router;
};

// Promise: `status` shows on one screen whether the gateway is on, its interfaces with role, state
// and addresses, and the open ports.
TEST_F(Status, ShowsTheRouterOnOneScreen) {
  const auto result = router.lumenctl({"status"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      result.out,
      "Gateway: on (process 4711)\n"
      "\n"
      "INTERFACE  ROLE      STATE    ADDRESS\n"
      "br-lan     internal  running  192.168.88.1\n"
      "wan0       external  running  45.45.45.1\n"
      "\n"
      "PORT      ON ADDRESS  TO                STATE  OPEN FOR   CONNECTIONS  SO FAR  OPENED BY\n"
      "8080/tcp  45.45.45.1  192.168.88.10:80  open   3 min 5 s            2      17  "
      "palinode-igd\n");
}

TEST_F(Status, ShowsTheRouterInJson) {
  EXPECT_EQ(router.lumenctl({"status", "--json"}).out,
            "{\n  \"version\": 1,\n  \"gateway\": \"on\",\n  \"interfaces\": [\n"
            "    {\n      \"name\": \"br-lan\",\n      \"role\": \"internal\",\n"
            "      \"used\": true,\n      \"state\": \"running\",\n"
            "      \"addresses\": [\n        \"192.168.88.1\"\n      ]\n    },\n"
            "    {\n      \"name\": \"wan0\",\n      \"role\": \"external\",\n"
            "      \"used\": true,\n      \"state\": \"running\",\n"
            "      \"addresses\": [\n        \"45.45.45.1\"\n      ]\n    }\n  ],\n"
            "  \"ports\": [\n    {\n      \"port\": 8080,\n      \"protocol\": \"tcp\",\n"
            "      \"address\": \"45.45.45.1\",\n      \"client\": \"192.168.88.10\",\n"
            "      \"client_port\": 80,\n      \"state\": \"open\",\n      \"stale\": false,\n"
            "      \"owner\": \"palinode-igd\",\n      \"seconds\": 185,\n"
            "      \"from\": \"\",\n      \"seconds_left\": null,\n"
            "      \"connections\": 2,\n      \"connections_so_far\": 17\n    }\n  ],\n"
            "  \"refused_ports\": [],\n  \"pinholes\": []\n}\n");
}

// Promise: `status` shows the newest refusals at ports of the router's own programs: when, for
// which client, and which program listens there.
TEST_F(Status, ShowsRefusalsAtPortsOfTheRoutersOwnPrograms) {
  setenv("TZ", "CET-1", 1);
  tzset();
  const std::string reason = "tcp port 8443 of 45.45.45.1 is this router's own: ssh.service\x1b";
  router.refusedOwnPort({.id = 7,
                         .event = 4,
                         .time = 1709251198007,
                         .owner = "upnp",
                         .user = 104,
                         .protocol = 6,
                         .address = inet_addr("45.45.45.1"),
                         .port = 8443,
                         .client = inet_addr("192.168.88.10"),
                         .clientPort = 80,
                         .reason = reason});
  const std::string shown = router.lumenctl({"status"}).out;
  EXPECT_TRUE(
      shown.ends_with("\n\nRefused 2024-03-01 00:59:58 to 192.168.88.10:80: tcp port 8443 of "
                      "45.45.45.1 is this router's own: ssh.service\\x1b\n"))
      << shown;
  const std::string json = router.lumenctl({"status", "--json"}).out;
  EXPECT_NE(json.find("\"refused_ports\": [\n    {\n      \"time\": 1709251198.007,\n"
                      "      \"port\": 8443,\n      \"protocol\": \"tcp\",\n"
                      "      \"address\": \"45.45.45.1\",\n"
                      "      \"client\": \"192.168.88.10\",\n      \"client_port\": 80,\n"),
            std::string::npos)
      << json;
}

// Promise [ctl-passive]: `status` never starts a gateway that does not run, and then shows the kept
// roles.
TEST_F(Status, NeverStartsAGatewayThatDoesNotRun) {
  for (const char* state : {lm::broker::state::stopped, lm::broker::state::starting,
                            lm::broker::state::leaving, lm::broker::state::waiting}) {
    router.gatewayIs(state);
    EXPECT_EQ(router.lumenctl({"status"}).status, 0);
    EXPECT_EQ(router.lumenctl({"status", "--json"}).status, 0);
  }
  EXPECT_FALSE(router.wasAsked("[40,0]"));
}

// Also proves [ctl-passive].
TEST_F(Status, ShowsTheKeptRolesWhileTheGatewayIsOff) {
  router.gatewayIs(lm::broker::state::stopped);
  EXPECT_TRUE(router.lumenctl({"status"})
                  .out.starts_with("Gateway: off\n"
                                   "\n"
                                   "INTERFACE  ROLE      STATE    ADDRESS\n"
                                   "br-lan     internal  running  192.168.88.1\n"
                                   "wan0       external  running  45.45.45.1\n"));
}

// Promise [ctl-partial]: `status` says `off`, `starting`, `crashed (starts again in 12 s)`, `not
// installed` or `not answering` with the reason, and shows the rest in any case.
TEST_F(Status, SaysInWhichStateTheGatewayIs) {
  router.settings().insert_bool(1, false);
  EXPECT_EQ(firstLine(), "Gateway: off (process 4711)");
  router.gatewayIs(lm::broker::state::leaving, 4711);
  EXPECT_EQ(firstLine(), "Gateway: off");
  router.gatewayIs(lm::broker::state::starting, 4711);
  EXPECT_EQ(firstLine(), "Gateway: starting");
  router.gatewayIs(lm::broker::state::waiting, 0, 12000);
  EXPECT_EQ(firstLine(), "Gateway: crashed (starts again in 12 s)");
  router.gatewayIsNotInstalled();
  EXPECT_EQ(firstLine(), "Gateway: not installed");
}

// Also proves [ctl-partial].
TEST_F(Status, ShowsTheRestWhenTheGatewayDoesNotAnswer) {
  router.refuses({40, 0}, lm::cmd::get, "timed out");
  const auto result = router.lumenctl({"status"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.out.starts_with("Gateway: not answering (timed out)\n"));
  EXPECT_NE(result.out.find("wan0       external"), std::string::npos);
  EXPECT_NE(result.out.find("8080/tcp"), std::string::npos);
}

// Promise [ctl-unreachable]: `status` says `not reachable` of a gateway that is switched on and
// listens on no internal interface, and names the interfaces when it listens on some only.
TEST_F(Status, DoesNotCallAGatewayOnThatNoHostCanReach) {
  gatewayListensAt(1900, 2828);
  EXPECT_EQ(firstLine(), "Gateway: on (process 4711)");
  for (const auto& [udp, tcp] : {std::pair(1900, 0), std::pair(0, 2828), std::pair(0, 0)}) {
    gatewayListensAt(udp, tcp);
    EXPECT_EQ(firstLine(), "Gateway: not reachable (process 4711; lumenctl upnp check shows why)");
    EXPECT_TRUE(router.lumenctl({"status", "--json"})
                    .out.starts_with("{\n  \"version\": 1,\n  \"gateway\": \"not reachable\",\n"));
  }
  gatewayListensAt(1900, 2828);
  router.link("br-lan").insert_bool(lm::interfaces::key::running, false);
  EXPECT_EQ(firstLine(), "Gateway: not reachable (process 4711; lumenctl upnp check shows why)")
      << "its only internal interface is away";
}

TEST_F(Status, SaysOnWhichInterfacesTheGatewayCannotBeReached) {
  router.hasLink("br-guest", 2);
  router.gatewayUses("br-guest", 2);
  router.hasAddress("br-guest", "192.168.99.1");
  gatewayListensAt(1900, 2828);
  router.machine().links[2] = router.link("br-lan").get_u32(lm::interfaces::key::index);
  EXPECT_EQ(firstLine(),
            "Gateway: on (process 4711; not reachable on br-guest, lumenctl upnp check shows why)");
}

// Promise: `status` marks an interface that the gateway is set not to use, and says how to set up
// a fresh router.
TEST_F(Status, MarksAnInterfaceThatTheGatewayDoesNotUse) {
  router.hasLink("br-guest", 2);
  router.gatewayUses("br-guest", 2, true);
  EXPECT_NE(router.lumenctl({"status"}).out.find("\nbr-guest   internal, not used  running\n"),
            std::string::npos);
}

TEST(StatusOfAFreshRouter, TellsHowToSetItUp) {
  FakePlatform router;
  router.gatewayIs(lm::broker::state::stopped);
  EXPECT_EQ(router.lumenctl({"status"}).out,
            "Gateway: off\n"
            "\n"
            "No interface is set up: lumenctl upnp setup\n"
            "\n"
            "No port is open.\n");
}

/// Shows pictures to a test, which looks at them for so many seconds.
class FakeScreen : public Screen {
 public:
  using Pictures = std::vector<std::vector<std::string>>;

  FakeScreen(Pictures& shown, std::deque<Event> events)
      : shown_(shown), events_(std::move(events)) {}
  Size size() override { return {80, 24}; }
  bool showsUtf8() override { return false; }
  void draw(const std::vector<std::string>& lines) override { shown_.push_back(lines); }
  Event wait(std::chrono::milliseconds limit) override {
    EXPECT_EQ(limit, 1s);
    if (events_.empty()) return Event::end;
    const Event event = events_.front();
    events_.pop_front();
    return event;
  }

 private:
  Pictures& shown_;
  std::deque<Event> events_;
};

struct Watch : Status {
  void looksFor(std::deque<Screen::Event> events) {
    router.machine().drawable = std::make_unique<FakeScreen>(shown, std::move(events));
  }
  size_t readings() {
    const auto& requests = router.requests();
    return static_cast<size_t>(
        std::count_if(requests.begin(), requests.end(),
                      [](const std::string& r) { return r.starts_with("[20,5] fe0004"); }));
  }
  FakeScreen::Pictures shown;
};

// Promise [ctl-watch]: `status --watch` draws the status each second in place, on a terminal's
// other screen, with the traffic of each second as bar graphs; what does not fit the terminal is
// left out and counted.
TEST_F(Watch, RedrawsTheRouterEachSecond) {
  looksFor({Screen::Event::timeOver, Screen::Event::timeOver});
  const auto result = router.lumenctl({"status", "--watch"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  ASSERT_EQ(shown.size(), 3U);
  EXPECT_TRUE(shown[0][0].starts_with("Gateway: on (process 4711) "));
  EXPECT_EQ(readings(), 3U);
}

// Promise: The screen of `status --watch` follows the size of the terminal.
TEST_F(Watch, RedrawsWhenTheScreenSizeChanges) {
  looksFor({Screen::Event::resized, Screen::Event::resized});
  EXPECT_EQ(router.lumenctl({"status", "--watch"}).status, 0);
  EXPECT_EQ(shown.size(), 3U);
  EXPECT_EQ(readings(), 1U);
}

// Promise [ctl-silent]: While the gateway does not answer, `status --watch` says so within two
// seconds, and goes on.
TEST_F(Watch, ShowsSoonThatTheGatewayHangs) {
  looksFor({});
  router.leavesUnanswered({40, 0}, lm::cmd::get, "no answer in time");
  EXPECT_EQ(router.lumenctl({"status", "--watch"}).status, 0);
  EXPECT_EQ(router.limitOf({40, 0}), 2s);
  EXPECT_EQ(router.limitOf({20, 5}), 15s);
  EXPECT_TRUE(shown.at(0).at(0).starts_with("Gateway: not answering (no answer in time)"));
}

// Promise [ctl-watch-lost]: When the platform ends, `status --watch` ends with 1, leaves the
// terminal as it was and says why.
TEST_F(Watch, EndsWithThePlatform) {
  looksFor({Screen::Event::timeOver});
  router.leavesUnanswered({20, 5}, lm::cmd::readAll, "connection ended");
  const auto result = router.lumenctl({"status", "--watch"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: connection ended\nlumend logs to its standard output.\n");
  EXPECT_EQ(router.machine().drawable, nullptr) << "its screen is gone";
}

TEST_F(Watch, ShowsNoTrafficOfAnInterfaceThatHasGone) {
  looksFor({Screen::Event::timeOver});
  router.refuses({20, 0}, lm::cmd::readObject, "no such object");
  EXPECT_EQ(router.lumenctl({"status", "--watch"}).status, 0);
  EXPECT_EQ(shown.size(), 2U);
}

// Promise [ctl-watch-plain]: Without a terminal `status --watch` prints a status each second, with
// `--json` an object on its own line, until `SIGINT`, `SIGTERM` or until its reader ends.
TEST_F(Watch, PrintsOneStatusBelowTheOtherElsewhere) {
  router.machine().pauses = 1;
  const std::string once = router.lumenctl({"status"}).out;
  EXPECT_EQ(router.lumenctl({"status", "--watch"}).out, once + "\n" + once + "\n");
}

// Also proves [ctl-watch-plain].
TEST_F(Watch, PrintsAnObjectOnEachLineForPrograms) {
  looksFor({});
  router.machine().pauses = 1;
  const std::string out = router.lumenctl({"status", "--watch", "--json"}).out;
  const size_t end = out.find('\n') + 1;
  EXPECT_TRUE(out.starts_with("{\"version\":1,\"gateway\":\"on\","));
  EXPECT_EQ(out, out.substr(0, end) + out.substr(0, end));
  EXPECT_TRUE(shown.empty());
}

}  // namespace
}  // namespace lumenctl
