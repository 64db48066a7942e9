#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "igd/DeviceStats.h"
#include "igd/Router.h"
#include "igd/WANCommonInterfaceConfig.h"

namespace {

using namespace std::chrono_literals;

const std::string type = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1";
constexpr uint32_t wan = 7;  // its interface's object id

class WanCommonInterfaceConfig : public Router {
 protected:
  /// The record of an interface with this hardware type.
  static lm::message record(std::optional<uint32_t> hardwareType = 1) {
    lm::message m;
    m.insert_u32(0xfe0001, wan);
    if (hardwareType) m.insert_u32(0x10001, *hardwareType);
    return m;
  }

  /// From now on the interface has these counters.
  void count(uint64_t bytesIn, uint64_t bytesOut, uint64_t packetsIn, uint64_t packetsOut) {
    lm::message reply = record();
    reply.insert_u64(0x100fc, bytesIn);
    reply.insert_u64(0x100fd, bytesOut);
    reply.insert_u64(0x100fe, packetsIn);
    reply.insert_u64(0x100ff, packetsOut);
    platform.answer(interfaceTable, lm::cmd::readObject, reply);
  }

  std::string value(const std::string& name) {
    std::string result;
    log = logged([&] { result = config.getVar(name); });
    return result;
  }

  static std::string ok(const std::string& action, const Arguments& out) {
    return response(type, action, out);
  }

  size_t reads() { return platform.sentTo(interfaceTable, lm::cmd::readObject).size(); }

  WANCommonInterfaceConfig config{record()};
};

// Promise [common-variables]: WANCommonInterfaceConfig has nine variables with their types, allowed
// values and evented flags; only `PhysicalLinkStatus` is evented.
TEST_F(WanCommonInterfaceConfig, HasTheVariablesOfALink) {
  platform.refuse(interfaceTable, lm::cmd::readObject, "x");
  struct Row {
    std::string name;
    VarType type;
    std::vector<std::string> allowed;
    bool evented;
    std::string value;
  };
  const std::vector<Row> rows = {
      {"WANAccessType", VAR_STRING, {"DSL", "POTS", "Cable", "Ethernet"}, false, "Ethernet"},
      {"Layer1UpstreamMaxBitRate", VAR_UI4, {}, false, "10000000"},
      {"Layer1DownstreamMaxBitRate", VAR_UI4, {}, false, "10000000"},
      {"PhysicalLinkStatus", VAR_STRING, {"Up", "Down"}, true, "Up"},
      {"TotalBytesSent", VAR_UI4, {}, false, "0"},
      {"TotalBytesReceived", VAR_UI4, {}, false, "0"},
      {"TotalPacketsSent", VAR_UI4, {}, false, "0"},
      {"TotalPacketsReceived", VAR_UI4, {}, false, "0"},
      {"X_Uptime", VAR_UI4, {}, false, "1000"},
  };
  EXPECT_EQ(config.getVariables().size(), rows.size());
  for (const Row& row : rows) {
    const auto found = config.getVariables().find(row.name);
    ASSERT_NE(found, config.getVariables().end()) << row.name;
    EXPECT_EQ(found->second.type, row.type) << row.name;
    EXPECT_EQ(found->second.allowed, row.allowed) << row.name;
    EXPECT_EQ(found->second.evented, row.evented) << row.name;
    EXPECT_TRUE(found->second.hasValue) << row.name;
    EXPECT_EQ(value(row.name), row.value) << row.name;
  }
}

// Promise: The service asks the platform for nothing until a counter is read.
TEST_F(WanCommonInterfaceConfig, AsksThePlatformForNothingUntilItIsRead) {
  EXPECT_TRUE(platform.sentTo(interfaceTable, lm::cmd::readObject).empty());
}

// Promise [common-access]: `WANAccessType` is `Ethernet` for an interface of hardware type 1, and
// `Other`, which is not among its allowed values, for every other and for an unknown type.
TEST_F(WanCommonInterfaceConfig, KnowsEthernetAndCallsTheRestOther) {
  EXPECT_EQ(value("WANAccessType"), "Ethernet");
  for (const std::optional<uint32_t> other : {std::optional<uint32_t>(0), {512}, {65534}, {}}) {
    EXPECT_EQ(WANCommonInterfaceConfig(record(other)).getVar("WANAccessType"), "Other");
  }
}

// Promise [common-link]: GetCommonLinkProperties answers the access type, `10000000`, `10000000`
// and `Up`, whatever the real speed.
TEST_F(WanCommonInterfaceConfig, AnswersTheProperties) {
  const Arguments common = {{"NewLayer1UpstreamMaxBitRate", "10000000"},
                            {"NewLayer1DownstreamMaxBitRate", "10000000"},
                            {"NewPhysicalLinkStatus", "Up"}};
  Arguments out = common;
  out.insert(out.begin(), {"NewWANAccessType", "Ethernet"});
  EXPECT_EQ(invoke(config, "GetCommonLinkProperties"), ok("GetCommonLinkProperties", out));

  WANCommonInterfaceConfig ppp(record(512));
  out[0].second = "Other";
  EXPECT_EQ(invoke(ppp, "GetCommonLinkProperties"), ok("GetCommonLinkProperties", out));
  EXPECT_EQ(reads(), 0U);
}

// Promise [counter-request]: Each read of a counter is one request: command 0xfe0002 to service 20,
// handler 0, with the interface's id and option 0xfe000c = 256.
// Promise [counter-fields]: Bytes received are field 0x100fc of the reply, bytes sent 0x100fd,
// packets received 0x100fe and packets sent 0x100ff.
// Promise [common-counters]: GetTotalBytesSent, GetTotalBytesReceived, GetTotalPacketsSent and
// GetTotalPacketsReceived each answer one counter, read from the kernel at each request.
TEST_F(WanCommonInterfaceConfig, ReadsACounterEachTime) {
  lm::message request;
  request.insert_u32(0xfe0001, wan);
  request.insert_u32(0xfe000c, 256);

  count(1, 2, 3, 4);
  EXPECT_EQ(invoke(config, "GetTotalBytesReceived"),
            ok("GetTotalBytesReceived", {{"NewTotalBytesReceived", "1"}}));
  EXPECT_EQ(invoke(config, "GetTotalBytesSent"),
            ok("GetTotalBytesSent", {{"NewTotalBytesSent", "2"}}));
  EXPECT_EQ(invoke(config, "GetTotalPacketsReceived"),
            ok("GetTotalPacketsReceived", {{"NewTotalPacketsReceived", "3"}}));
  EXPECT_EQ(invoke(config, "GetTotalPacketsSent"),
            ok("GetTotalPacketsSent", {{"NewTotalPacketsSent", "4"}}));
  EXPECT_EQ(log, "action: GetTotalPacketsSent\nret: NewTotalPacketsSent, val: 4\n");

  const auto sent = platform.sentTo(interfaceTable, lm::cmd::readObject);
  ASSERT_EQ(sent.size(), 4U);
  for (const lm::message& m : sent) EXPECT_EQ(lm::test::contentOf(m), request);

  count(11, 12, 13, 14);
  EXPECT_EQ(value("TotalBytesReceived"), "11");
}

// Promise [common-modulo]: Counters are reported modulo 2^32: 4294967301 bytes sent are `5`.
TEST_F(WanCommonInterfaceConfig, CountsModulo32Bits) {
  constexpr uint64_t turn = 4294967296;
  count(turn - 1, turn + 5, 3 * turn, 7 * turn + 6);
  EXPECT_EQ(value("TotalBytesReceived"), "4294967295");
  EXPECT_EQ(value("TotalBytesSent"), "5");
  EXPECT_EQ(value("TotalPacketsReceived"), "0");
  EXPECT_EQ(value("TotalPacketsSent"), "6");
}

// Promise [common-refused]: When the platform refuses a counter, the log has `get device stats: `
// with its text, and the action succeeds with `0`.
TEST_F(WanCommonInterfaceConfig, ReportsZeroWhenThePlatformRefuses) {
  platform.refuse(interfaceTable, lm::cmd::readObject, "no such object");
  EXPECT_EQ(invoke(config, "GetTotalBytesReceived"),
            ok("GetTotalBytesReceived", {{"NewTotalBytesReceived", "0"}}));
  EXPECT_EQ(log,
            "action: GetTotalBytesReceived\nget device stats: no such object\n"
            "ret: NewTotalBytesReceived, val: 0\n");
}

// Promise [common-timeout]: A platform that does not answer is waited for for six seconds, and the
// counter is `0`.
TEST_F(WanCommonInterfaceConfig, ReportsZeroWhenThePlatformDoesNotAnswer) {
  platform.ignore(interfaceTable, lm::cmd::readObject);
  const auto before = platform.clock().now();
  EXPECT_EQ(value("TotalPacketsSent"), "0");
  EXPECT_EQ(platform.clock().now() - before, 6s);
  EXPECT_EQ(ownLog().substr(0, 18), "get device stats: ");
}

// Promise: A reply without a counter is `0`, without a line in the log.
TEST_F(WanCommonInterfaceConfig, ReportsZeroWhenTheReplyHasNoCounter) {
  platform.answer(interfaceTable, lm::cmd::readObject, record());
  EXPECT_EQ(value("TotalBytesSent"), "0");
  EXPECT_EQ(log, "");
}

// Promise [common-ics]: X_GetICSStatistics answers `TotalBytesSent`, `TotalBytesReceived`,
// `TotalPacketsSent`, `TotalPacketsReceived`, `Layer1DownstreamMaxBitRate` and `Uptime`, under
// these names, the last being the router's uptime.
TEST_F(WanCommonInterfaceConfig, AnswersTheStatisticsWithFourReads) {
  count(1, 2, 3, 4);
  platform.clock().advance(5s);
  EXPECT_EQ(invoke(config, "X_GetICSStatistics"),
            ok("X_GetICSStatistics", {{"TotalBytesSent", "2"},
                                      {"TotalBytesReceived", "1"},
                                      {"TotalPacketsSent", "4"},
                                      {"TotalPacketsReceived", "3"},
                                      {"Layer1DownstreamMaxBitRate", "10000000"},
                                      {"Uptime", "1005"}}));
  EXPECT_EQ(reads(), 4U);
}

// Promise: X_GetICSStatistics reads the four counters one after the other, in the order of the
// answer.
TEST_F(WanCommonInterfaceConfig, ReadsTheStatisticsInTheOrderOfTheAnswer) {
  uint64_t read = 0;
  platform.onRequest(interfaceTable, lm::cmd::readObject, [&read](const lm::message&) {
    ++read;
    lm::message reply;
    for (const uint32_t key : {0x100fcU, 0x100fdU, 0x100feU, 0x100ffU}) {
      reply.insert_u64(key, read);
    }
    return reply;
  });
  EXPECT_EQ(invoke(config, "X_GetICSStatistics"),
            ok("X_GetICSStatistics", {{"TotalBytesSent", "1"},
                                      {"TotalBytesReceived", "2"},
                                      {"TotalPacketsSent", "3"},
                                      {"TotalPacketsReceived", "4"},
                                      {"Layer1DownstreamMaxBitRate", "10000000"},
                                      {"Uptime", "1000"}}));
}

TEST_F(WanCommonInterfaceConfig, UsesTheRecordThatItIsGivenLater) {
  count(1, 2, 3, 4);
  lm::message other;
  other.insert_u32(0xfe0001, 9);
  config.setVar("Layer1UpstreamMaxBitRate", "1");
  config.setInterface(other);
  EXPECT_EQ(value("TotalBytesSent"), "2");
  EXPECT_EQ(platform.sentTo(interfaceTable, lm::cmd::readObject)[0].get_u32(0xfe0001), 9U);
  EXPECT_EQ(value("Layer1UpstreamMaxBitRate"), "10000000");
}

TEST_F(WanCommonInterfaceConfig, ReadsAllFourCountersAtOnce) {
  count(1, 2, 3, 4);
  const DeviceStats stats = getDeviceStats(wan);
  EXPECT_EQ(stats.bytesReceived, 1U);
  EXPECT_EQ(stats.bytesSent, 2U);
  EXPECT_EQ(stats.packetsReceived, 3U);
  EXPECT_EQ(stats.packetsSent, 4U);
  EXPECT_EQ(reads(), 1U);
}

}  // namespace
