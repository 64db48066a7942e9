// The record of what happened to ports.

#include <malloc.h>

#include "lumen/services/nat/PortLog.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

const char* word(uint32_t event) {
  constexpr const char* words[] = {"?", "opened", "changed", "closed", "refused"};
  return event < std::size(words) ? words[event] : "?";
}

/// "opened upnp/0 tcp port 8080 of 45.45.45.1 to 192.168.88.10:80: the reason".
std::string textOf(const lm::message& m) {
  const lm::nat::LogRecord event = lm::nat::readLogRecord(m);
  const RuleKey key{
      .external = {Ipv4Address::fromBytes(event.address), static_cast<uint16_t>(event.port)},
      .protocol = static_cast<uint8_t>(event.protocol)};
  const Endpoint client{Ipv4Address::fromBytes(event.client),
                        static_cast<uint16_t>(event.clientPort)};
  return std::string(word(event.event)) + " " + event.owner + "/" + std::to_string(event.user) +
         " " + keyText(key) + " to " + client.text() +
         (event.reason.empty() ? "" : ": " + event.reason);
}

std::vector<lm::message> recordsOf(PortLog& log, const Caller& reader) {
  std::vector<lm::message> all;
  lm::message request;
  do {
    const lm::message page = log.handle(reader, lm::cmd::list, request);
    EXPECT_EQ(lm::getError(page), "");
    const auto& records = page.get_message_array_ref(lm::key::records);
    all.insert(all.end(), records.begin(), records.end());
    request = page;
  } while (request.get_u32(lm::key::cursor, lm::none) != lm::none);
  return all;
}

/// What a NAT table records.
class PortLogTest : public NatFixture {
 protected:
  PortLogTest() {
    daemon.user = 104;
    admin.user = 1000;
  }

  /// The events since the last call, as they are listed; each was notified as it is listed.
  Texts happened() {
    Texts texts;
    for (const lm::message& m : recordsOf(portLog, admin)) {
      if (m.get_u32(lm::key::objectId) <= seen_) continue;
      seen_ = m.get_u32(lm::key::objectId);
      texts.push_back(textOf(m));
    }
    Texts heard;
    for (const RecordingNotifier::Notification& n : notifier.notified) {
      EXPECT_EQ(n.command, lm::cmd::changed);
      EXPECT_EQ(n.source, (std::vector<uint32_t>{20, 6}));
      for (const lm::message& m : n.fields.get_message_array_ref(lm::key::records)) {
        heard.push_back(textOf(m));
      }
    }
    EXPECT_EQ(heard, texts);
    notifier.notified.clear();
    return texts;
  }

 private:
  uint32_t seen_ = 0;
};

}  // namespace

// Promise [port-record]: lumend records each port that is opened, changed, closed or refused: when,
// by which service or administrator and user, the port, its client, and the reason.
TEST_F(PortLogTest, RecordsWhatHappensToAPort) {
  const uint32_t id = opens({});
  EXPECT_EQ(happened(), Texts{"opened upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:80"});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81, true)), "");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(happened(), (Texts{"changed upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:81: "
                               "was to 192.168.88.10:80",
                               "changed upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:81: "
                               "disabled",
                               "changed upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:81: "
                               "enabled"}));
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(happened(), Texts{}) << "nothing has changed";
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(happened(),
            (Texts{"closed administrator/1000 tcp port 8080 of 45.45.45.1 to 192.168.88.10:81",
                   "closed upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:81"}));
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(happened(), Texts{}) << "it was gone already";
  EXPECT_EQ(lm::nat::readLogRecord(recordsOf(portLog, admin)[0]).time, 1709251198000U);
}

// Also proves [port-record].
TEST_F(PortLogTest, RecordsWhatIsRefused) {
  const uint32_t id = opens({});
  (void)happened();
  EXPECT_NE(refusedToOpen({.port = 80}), "");
  EXPECT_NE(refusedToOpen({.client = "8.8.8.8"}), "");
  lm::message request = addRequest({});
  request.insert_u32(10, 70000);
  request.insert_u32(9, 70000);
  EXPECT_NE(refused(request), "");
  EXPECT_NE(sets(setRequest(id, "8.8.8.8", 80)), "");
  const Caller other{8, 41, "other", false, 105};
  EXPECT_EQ(asks(other, lm::cmd::removeObject, idOnly(id)), "not permitted");
  EXPECT_EQ(removes(77), "no such object");
  nftables.refuses("add element ip lumen forwards { 45.45.45.1 . tcp . 9000 : 192.168.88.10 . 80 }",
                   "no memory");
  EXPECT_NE(refusedToOpen({.port = 9000}), "");
  EXPECT_EQ(
      happened(),
      (Texts{"refused upnp/104 tcp port 80 of 45.45.45.1 to 192.168.88.10:80: external port 80 is "
             "not allowed by the policy",
             "refused upnp/104 tcp port 8080 of 45.45.45.1 to 8.8.8.8:80: internal client 8.8.8.8 "
             "is not allowed by the policy: it is not directly connected",
             "refused upnp/104 tcp port 0 of 45.45.45.1 to 192.168.88.10:80: external port must be "
             "from 1 to 65535",
             "refused upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:80: internal client "
             "8.8.8.8 is not allowed by the policy: it is not directly connected",
             "refused other/105 tcp port 8080 of 45.45.45.1 to 192.168.88.10:80: not "
             "permitted",
             "refused upnp/104 udp port 0 of 0.0.0.0 to 0.0.0.0:0: no such object",
             "refused upnp/104 tcp port 9000 of 45.45.45.1 to 192.168.88.10:80: the kernel refused "
             "it: no memory"}));
}

// Also proves [port-record].
TEST_F(PortLogTest, RecordsThePortsOfAProgramThatEnds) {
  opens({});
  opens({.port = 8081, .disabled = true});
  (void)happened();
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(happened(), (Texts{"closed upnp/104 tcp port 8080 of 45.45.45.1 to 192.168.88.10:80: "
                               "the program that had it ended",
                               "closed upnp/104 tcp port 8081 of 45.45.45.1 to 192.168.88.10:80: "
                               "the program that had it ended"}));
}

TEST_F(PortLogTest, RecordsWhatIsUndone) {
  const std::string port = " tcp port 8080 of 45.45.45.1 to 192.168.88.10:";
  const std::string why = ": the request was given up";
  opens({});
  givesUp();
  EXPECT_EQ(happened(),
            (Texts{"opened upnp/104" + port + "80", "closed upnp/104" + port + "80" + why}));
  const uint32_t id = opens({});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  givesUp();
  EXPECT_EQ(closes(id), "");
  givesUp();
  EXPECT_EQ(removes(id), "");
  givesUp();
  EXPECT_EQ(happened(),
            (Texts{"opened upnp/104" + port + "80",
                   "changed upnp/104" + port + "81: was to 192.168.88.10:80",
                   "changed upnp/104" + port + "80" + why,
                   "closed administrator/1000" + port + "80", "opened upnp/104" + port + "80" + why,
                   "closed upnp/104" + port + "80", "opened upnp/104" + port + "80" + why}));
}

// Promise: lumend keeps the newest refusals at five ports where programs of the router listen, one
// for each port, whatever else happens.
TEST_F(PortLogTest, KeepsTheNewestRefusalOfEachOwnPort) {
  const auto refusals = [this] {
    Texts texts;
    const lm::message answer = portLog.handle(admin, lm::cmd::get, {});
    for (const lm::message& m : answer.get_message_array_ref(lm::key::records)) {
      texts.push_back(textOf(m));
    }
    return texts;
  };
  const auto refusal = [](const std::string& port, const std::string& client = "192.168.88.10") {
    return "refused upnp/104 tcp port " + port + " of 45.45.45.1 to " + client + ":80: tcp port " +
           port + " of 45.45.45.1 is this router's own: vpn.service listens there";
  };
  EXPECT_EQ(refusals(), Texts{});
  EXPECT_NE(refusedToOpen({.port = 80}), "");
  EXPECT_EQ(refusals(), Texts{}) << "no program listens there";
  for (uint32_t port = 8001; port <= 8006; ++port) {
    listeners.programs[{6, static_cast<uint16_t>(port)}] = "vpn.service";
    EXPECT_NE(refusedToOpen({.port = port}), "");
  }
  const Texts last = {refusal("8003"), refusal("8004"), refusal("8005"), refusal("8006")};
  EXPECT_EQ(refusals(), (Texts{refusal("8002"), last[0], last[1], last[2], last[3]}));
  EXPECT_NE(refusedToOpen({.port = 8002, .client = "192.168.88.11"}), "");
  EXPECT_EQ(refusals(),
            (Texts{last[0], last[1], last[2], last[3], refusal("8002", "192.168.88.11")}));
  EXPECT_EQ(happened().size(), 8U) << "the record has them all";
}

// Promise: Only administrators read the record of ports.
TEST_F(PortLogTest, IsReadByAdministratorsOnly) {
  opens({});
  for (const uint32_t command :
       {lm::cmd::list, lm::cmd::readAll, lm::cmd::get, lm::cmd::removeObject}) {
    EXPECT_EQ(lm::getError(portLog.handle(daemon, command, {})), "not permitted");
  }
  EXPECT_EQ(lm::getError(portLog.handle(admin, lm::cmd::removeObject, idOnly(1))),
            "unknown command");
  EXPECT_TRUE(portLog.isPrivate());
}

namespace {

/// A record of its own, without a table.
class FullPortLog : public testing::Test {
 protected:
  void happens(lm::nat::Event event, const std::string& client, uint16_t port,
               const std::string& reason = "") {
    log.add(event, {.name = "upnp", .user = 104},
            {.external = {ip("45.45.45.1"), port}, .protocol = 6}, {ip(client), 80}, reason);
    notifier.notified.clear();
  }
  void opens(const std::string& client, uint16_t port) {
    happens(lm::nat::Event::opened, client, port);
  }
  /// The ports of the client's events.
  std::vector<uint32_t> portsOf(const std::string& client) {
    std::vector<uint32_t> ports;
    for (const lm::message& m : recordsOf(log, admin)) {
      const lm::nat::LogRecord event = lm::nat::readLogRecord(m);
      if (event.client == ip(client).bytes()) ports.push_back(event.port);
    }
    return ports;
  }

  const Caller admin{9, 0, "", true};
  RecordingNotifier notifier;
  PortLog log{notifier};
};

}  // namespace

// Promise [port-record-size]: The newest 10,000 events of ports are recorded; a flood for one
// client displaces that client's events, and a flood of refusals other refusals.
TEST_F(FullPortLog, KeepsTheNewestTenThousand) {
  for (uint32_t i = 0; i < 10'010; ++i) opens("192.168.88.10", static_cast<uint16_t>(1024 + i));
  const std::vector<uint32_t> ports = portsOf("192.168.88.10");
  ASSERT_EQ(ports.size(), 10'000U);
  EXPECT_EQ(ports.front(), 1034U);
  EXPECT_EQ(ports.back(), 11'033U);
}

// Also proves [port-record-size].
TEST_F(FullPortLog, KeepsTheEventsOfOtherClientsDuringAFlood) {
  opens("192.168.88.10", 8080);
  for (uint32_t i = 0; i < 30'000; ++i) opens("192.168.88.66", static_cast<uint16_t>(i));
  opens("192.168.88.11", 8081);
  EXPECT_EQ(portsOf("192.168.88.10"), std::vector<uint32_t>{8080});
  EXPECT_EQ(portsOf("192.168.88.11"), std::vector<uint32_t>{8081});
  EXPECT_EQ(portsOf("192.168.88.66").size(), 9'998U);
}

// Also proves [port-record-size].
TEST_F(FullPortLog, KeepsWhatWasDoneDuringAFloodOfRefusals) {
  for (uint16_t port = 1; port <= 50; ++port) opens("192.168.88.10", port);
  for (uint32_t i = 0; i < 30'000; ++i) {
    const Ipv4Address client = Ipv4Address::fromNumber(0x0a000000 + i);
    happens(lm::nat::Event::refused, client.text(), 80, "not today");
  }
  EXPECT_EQ(portsOf("192.168.88.10").size(), 50U);
  EXPECT_EQ(recordsOf(log, admin).size(), 10'000U);
}

// Also proves [port-record-size].
TEST_F(FullPortLog, KeepsTheEventsOfOtherClientsDuringAFloodOfAnIpv6Network) {
  opens("192.168.88.10", 8080);
  Ipv6Address::Bytes host = Ipv6Address::parse("2001:db8:1::")->bytes();
  for (uint32_t i = 0; i < 30'000; ++i) {
    host[14] = static_cast<uint8_t>(i >> 8);
    host[15] = static_cast<uint8_t>(i);
    log.add(lm::nat::Event::opened, {.name = "pcp"}, Ipv6Address(host), 6, 80, "");
    notifier.notified.clear();
  }
  EXPECT_EQ(portsOf("192.168.88.10"), std::vector<uint32_t>{8080});
  EXPECT_EQ(recordsOf(log, admin).size(), 10'000U);
}

TEST_F(FullPortLog, DropsTheOldestWhenAllClientsHaveAsMany) {
  for (uint32_t i = 0; i < 10'001; ++i) {
    opens(Ipv4Address::fromNumber(0x0a000000 + 20'000 - i).text(), static_cast<uint16_t>(i));
  }
  EXPECT_EQ(portsOf("10.0.78.32"), std::vector<uint32_t>{}) << "the first";
  EXPECT_EQ(portsOf("10.0.78.31"), std::vector<uint32_t>{1});
}

// Promise: Texts of an event are cut: its reason to 120 bytes, the name to 32.
TEST_F(FullPortLog, CutsLongTexts) {
  log.add(lm::nat::Event::refused, {.name = std::string(1000, 'n'), .user = 1}, {}, {},
          std::string(100'000, 'r'));
  const lm::nat::LogRecord event = lm::nat::readLogRecord(recordsOf(log, admin).at(0));
  EXPECT_EQ(event.owner, std::string(32, 'n'));
  EXPECT_EQ(event.reason, std::string(120, 'r'));
}

// Promise: The fullest record of ports takes less than 5 MB of memory.
TEST_F(FullPortLog, TakesABoundedAmountOfMemory) {
  const auto fill = [this](uint32_t from) {
    for (uint32_t i = 0; i < 20'000; ++i) {
      log.add(lm::nat::Event::closed, {.name = std::string(32, 'n'), .user = 1}, {},
              {Ipv4Address::fromNumber(from + i), 80}, std::string(120, 'r'));
      notifier.notified.clear();
    }
  };
  const size_t before = mallinfo2().uordblks;
  if (before == 0) GTEST_SKIP() << "the malloc of a sanitizer does not count";
  fill(0x0a000000);
  const size_t full = mallinfo2().uordblks - before;
  std::printf("%zu bytes in %zu events\n", full, PortLog::capacity);
  fill(0x0b000000);
  const size_t later = mallinfo2().uordblks - before;
  EXPECT_GT(full, PortLog::capacity * 152) << "not counted";
  EXPECT_LT(full, 5'000'000U);
  EXPECT_LT(later, full + 10'000);
}

}  // namespace lumen::test
