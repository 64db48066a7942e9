#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumen/ctl/status/StatusPicture.h"
#include "lumen/ctl/text/Text.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pinholes.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

/// A router with two interfaces and one open port.
struct Picture : testing::Test {
  Picture() {
    status.gateway = GatewayState::on;
    status.detail = "process 4711";
    uses(1, "br-lan", Role::internal, "192.168.88.1");
    uses(2, "wan0", Role::external, "45.45.45.1");
    opens(8080);
  }

  void uses(uint32_t id, const std::string& name, Role role, const std::string& address) {
    lm::message record;
    record.insert_u32(lm::key::objectId, id);
    record.insert_u32(lm::interfaces::key::index, id);
    record.insert_string(lm::interfaces::key::name, name);
    record.insert_bool(lm::interfaces::key::running, true);
    GatewayObject object;
    object.role = role;
    status.interfaces.push_back({Interface(record), object, {*lumen::Ipv4Address::parse(address)}});
  }

  void opens(uint32_t port) {
    lm::message record;
    record.insert_be32(lm::nat::key::addressFirst, lumen::Ipv4Address(45, 45, 45, 1).bytes());
    record.insert_u32(lm::nat::key::portFirst, port);
    record.insert_u32(lm::nat::key::protocol, 6);
    record.insert_be32(lm::nat::key::clientFirst, lumen::Ipv4Address(192, 168, 88, 10).bytes());
    record.insert_u32(lm::nat::key::clientPortFirst, 80);
    record.insert_string(lm::nat::key::owner, "upnp");
    record.insert_u64(lm::nat::key::seconds, 185);
    record.insert_u64(lm::nat::key::connections, 2);
    record.insert_u64(lm::nat::key::uses, 17);
    status.rules.emplace_back(record);
  }

  /// It received and sent that much in one second after the other.
  void carries(uint32_t id, const std::vector<Traffic::Rate>& rates) {
    uint64_t received = 0;
    uint64_t sent = 0;
    Traffic::Time now;
    const auto reading = [&] {
      lm::message record;
      record.insert_u64(lm::interfaces::key::bytesReceived, received);
      record.insert_u64(lm::interfaces::key::bytesSent, sent);
      traffic[id].add(Counters(record), now);
      now += std::chrono::seconds(1);
    };
    reading();
    for (const Traffic::Rate& rate : rates) {
      received += rate.received;
      sent += rate.sent;
      reading();
    }
  }

  Lines draw(size_t width, size_t height, bool colours = false, bool utf8 = true) {
    return picture(status, traffic, {{width, height}, colours, utf8});
  }

  Status status;
  std::map<uint32_t, Traffic> traffic;
};

// Also proves [ctl-watch].
TEST_F(Picture, ShowsTheRouterWithItsTraffic) {
  carries(1, {{100, 0}, {800, 400}});
  carries(2, {{0, 0}, {1'200'000, 0}});
  EXPECT_EQ(
      draw(96, 24),
      (Lines{
          "Gateway: on (process 4711)" + std::string(64, ' ') + "q ends", "",
          "INTERFACE  ROLE      STATE    ADDRESS       RECEIVED/S                  SENT/S",
          std::string("br-lan     internal  running  192.168.88.1       800 B              ▂█") +
              "   400 B               ▅",
          "wan0       external  running  45.45.45.1        1.2 MB               █     0 B", "",
          std::string("PORT      ON ADDRESS  TO                STATE  OPEN FOR   CONNECTIONS") +
              "  SO FAR  OPENED BY",
          "8080/tcp  45.45.45.1  192.168.88.10:80  open   3 min 5 s            2      17  upnp"}));
}

TEST_F(Picture, ShowsThePortsOfIpv6Hosts) {
  lm::message record;
  lm::pinholes::write(
      record,
      lm::pinholes::Record{
          .pinhole = {.address = "2001:db8::10", .protocol = 17, .port = 5060, .lease = 5025},
          .owner = "pcp",
          .seconds = 185});
  status.pinholes.emplace_back(record);
  const Lines lines = draw(96, 24);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
            (Lines{"", "PORT      OF IPV6 HOST  OPEN FOR   ENDS IN     OPENED BY",
                   "5060/udp  2001:db8::10  3 min 5 s  1 h 23 min  pcp"}));
}

// Promise: Where the locale is not UTF-8 the graphs of `status --watch` are ASCII, where there is
// no room there are none.
TEST_F(Picture, DrawsGraphsInAsciiWhereThereIsNothingElse) {
  carries(1, {{1, 0}, {200, 0}, {400, 0}, {600, 0}, {800, 0}});
  const std::string line = draw(100, 24, false, false)[3];
  EXPECT_NE(line.find(".-+#@"), std::string::npos) << line;
  for (const char c : line) EXPECT_LT(static_cast<unsigned char>(c), 0x80);
}

TEST_F(Picture, ShowsTheNewestRatesOfALongHistory) {
  std::vector<Traffic::Rate> rates(50, {800, 0});
  rates.push_back({0, 0});
  rates.push_back({800, 0});
  carries(1, rates);
  const std::string line = draw(96, 24)[3];
  EXPECT_NE(line.find("█ █"), std::string::npos) << line;
}

TEST_F(Picture, LeavesGraphsOutWhereThereIsNoRoom) {
  carries(1, {{800, 800}});
  const Lines lines = draw(70, 24);
  EXPECT_EQ(lines[3], "br-lan     internal  running  192.168.88.1       800 B     800 B");
}

// Also proves [ctl-watch].
TEST_F(Picture, FitsEveryScreen) {
  for (uint32_t port = 1; port < 30; ++port) opens(port);
  carries(1, {{800, 400}});
  for (const bool colours : {false, true}) {
    for (size_t width = 0; width < 130; width += width < 10 ? 1 : 9) {
      for (const size_t height : {0U, 1U, 5U, 100U}) {
        const Lines lines = draw(width, height, colours);
        EXPECT_LE(lines.size(), height);
        for (std::string line : lines) {
          for (size_t at = line.find('\x1b'); at != line.npos; at = line.find('\x1b')) {
            line.erase(at, line.find('m', at) + 1 - at);
          }
          EXPECT_LE(columns(line), width) << line;
        }
      }
    }
  }
}

// Also proves [ctl-watch].
TEST_F(Picture, SaysHowManyLinesDoNotFit) {
  for (uint32_t port = 1; port < 30; ++port) opens(port);
  const Lines lines = draw(96, 10);
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[8].substr(0, 6), "2/tcp ");
  EXPECT_EQ(lines[9], "and 28 more lines");
}

TEST_F(Picture, SaysThatThereIsNoInterfaceAndNoPort) {
  const Lines lines = picture(Status{}, {}, {{80, 24}, false, true});
  EXPECT_EQ(lines[2], "No interface is set up: lumenctl upnp setup");
  EXPECT_EQ(lines[4], "No port is open.");
}

TEST_F(Picture, ShowsRefusalsAtPortsOfTheRoutersOwnPrograms) {
  lm::message record;
  lm::nat::write(record, lm::nat::LogRecord{.id = 7, .event = 4, .reason = "ssh.service\x1b[2J"});
  status.refusals.emplace_back(record);
  const Lines lines = draw(96, 24);
  EXPECT_TRUE(lines.back().starts_with("Refused ")) << lines.back();
  EXPECT_TRUE(lines.back().ends_with(": ssh.service\\x1b[2J")) << lines.back();
  EXPECT_LE(columns(draw(20, 24).back()), 20U);
}

TEST_F(Picture, ColoursStates) {
  EXPECT_TRUE(draw(96, 24, true)[0].starts_with("Gateway: \x1b[32mon\x1b[0m (process 4711)"));
  EXPECT_NE(draw(96, 24, true)[3].find("\x1b[32mrunning\x1b[0m"), std::string::npos);
}

TEST_F(Picture, ShowsHostileTextEscaped) {
  status.detail = "x\x1b[2J";
  EXPECT_EQ(draw(96, 24)[0].find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace lumenctl
