#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/monitor/Monitor.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/runtime/Fields.h"
#include "lumen/values/Ipv4.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/History.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {
namespace {

using Path = std::vector<uint32_t>;
using Lines = std::vector<std::string>;

constexpr uint32_t subscribers = lm::monitor::subscribers;
constexpr uint32_t gateway = 40;
constexpr uint32_t administrator = lm::monitor::anonymous + 5;

lm::message request(const Path& to, uint32_t command, uint32_t serial, lm::message fields = {}) {
  fields.insert_u32_array(lm::key::destination, to);
  fields.insert_u32_array(lm::key::source, {gateway, 0});
  fields.insert_u32(lm::key::serial, serial);
  fields.insert_u32(lm::key::command, command);
  return fields;
}

lm::message reply(uint32_t serial, lm::message fields = {}) {
  fields.insert_bool(lm::key::isReply, true);
  fields.insert_u32(lm::key::serial, serial);
  return fields;
}

lm::message notification(const Path& from, uint32_t command, lm::message fields = {}) {
  fields.insert_u32_array(lm::key::source, from);
  fields.insert_u32(lm::key::command, command);
  return fields;
}

struct Monitoring : testing::Test {
  /// The lines that were printed, without the time of day.
  Lines lines() {
    const auto result = router.lumenctl({"monitor"});
    EXPECT_EQ(result.status, 0) << result.err;
    Lines all;
    std::istringstream in(result.out);
    for (std::string line; std::getline(in, line);) {
      EXPECT_EQ(line.find(' '), std::string("23:59:58.007").size()) << line;
      all.push_back(line.substr(line.find(' ') + 1));
    }
    return all;
  }

  FakePlatform router;
};

// Promise [ctl-monitor-end]: `monitor` ends with 0 on SIGINT and SIGTERM, with 1 when the platform
// ends or refuses.
TEST_F(Monitoring, SwitchesItOnAndEndsWith0WhenAskedToEnd) {
  const auto result = router.lumenctl({"monitor"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(router.requests(), (Lines{"[0] 14", "[0] 15 00000001=true"}));
}

// Also proves [ctl-monitor-end].
TEST_F(Monitoring, EndsWith1WhenThePlatformEnds) {
  router.passes(20, subscribers, notification({20, 1}, lm::cmd::changed));
  router.ends();
  const auto result = router.lumenctl({"monitor"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out, "");
  EXPECT_EQ(result.err, "lumenctl: the platform has ended\n");
}

// Also proves [ctl-monitor-end].
TEST_F(Monitoring, EndsWith1WhenItIsNotPermitted) {
  router.refuses({0}, lm::broker::cmd::monitor, "not permitted");
  const auto result = router.lumenctl({"monitor"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: not permitted\n");
}

// Promise: `monitor` prints each message that passes the broker as one line with the time of day,
// its sender, its receiver, what it is and its fields by name.
TEST_F(Monitoring, ShowsARequestWithNamesForItsFields) {
  namespace key = lm::nat::key;
  lm::message rule;
  rule.insert_string(key::chain, "dstnat");
  rule.insert_bool(key::matchAddress, true);
  rule.insert_be32(key::addressFirst, lumen::Ipv4Address(45, 45, 45, 1).bytes());
  rule.insert_u32(key::portFirst, 8080);
  rule.insert_be32(key::clientFirst, lumen::Ipv4Address(192, 168, 88, 10).bytes());
  rule.insert_bool(lm::key::dynamic, true);
  router.passes(gateway, 20, request({20, 5}, lm::cmd::addObject, 3, rule));
  EXPECT_EQ(lines(), Lines{"palinode-igd -> nat: request add chain=dstnat match-address=true "
                           "address-first=45.45.45.1 port-first=8080 client-first=192.168.88.10 "
                           "dynamic=true"});
}

// Promise: `monitor` says of a reply and of an error what it answers, and which program refused.
TEST_F(Monitoring, TellsWhatAReplyAnswers) {
  lm::message done;
  done.insert_u32(lm::key::objectId, 9);
  router.passes(gateway, 20, request({20, 5}, lm::cmd::addObject, 3));
  router.passes(administrator, 20, request({20, 0}, lm::cmd::list, 3));
  router.passes(20, gateway, reply(3, done));
  router.passes(20, administrator, reply(3, lm::errorMsg(lm::errorRefused, "no \"such\" thing")));
  router.passes(20, gateway, reply(3));
  EXPECT_EQ(lines(),
            (Lines{"palinode-igd -> nat: request add", "connection 5 -> interfaces: request list",
                   "nat -> palinode-igd: reply to add id=9",
                   "interfaces -> connection 5: error to list: \"no \\\"such\\\" thing\"",
                   "interfaces -> palinode-igd: reply"}));
}

TEST_F(Monitoring, TellsWhoRefusedARequest) {
  router.passes(administrator, gateway, request({gateway, 0}, lm::cmd::get, 3));
  router.passes(0, administrator, reply(3, lm::errorMsg(lm::errorRefused, "unavailable")));
  EXPECT_EQ(lines(), (Lines{"connection 5 -> palinode-igd: request get-settings",
                            "broker -> connection 5: error to get-settings: unavailable"}));
}

TEST_F(Monitoring, ShowsANotificationWithItsRecords) {
  lm::message record;
  record.insert_u32(lm::key::objectId, 1);
  record.insert_string(lm::interfaces::key::name, "wan0");
  lm::message fields;
  fields.insert_message_array(lm::key::records, {record, record});
  router.passes(20, subscribers, notification({20, 0}, lm::cmd::interfaceChanged, fields));
  EXPECT_EQ(lines(), Lines{"interfaces -> all: notification interface-changed "
                           "records=[{id=1 name=wan0}, {id=1 name=wan0}]"});
}

// Promise: `monitor` shows what it does not know by number, and text that is not one word in
// quotes.
TEST_F(Monitoring, ShowsWhatItDoesNotKnowByNumber) {
  lm::message fields;
  fields.insert_bool(0x77, true);
  fields.insert_u32(0x77, 5);
  fields.insert_u64(0x77, 6);
  fields.insert_string(0x77, "\x1b[2J");
  fields.insert_u32_array(0x77, {1, 2});
  lm::message inner;
  inner.insert_u32(0x78, 7);
  fields.insert_message(0x77, inner);
  router.passes(77, 78, request({78, 3}, 0x99, 1, fields));
  EXPECT_EQ(lines(), Lines{"service 77 -> service 78/3: request command 0x99 bool 0x00000077=true "
                           "u32 0x08000077=5 u64 0x10000077=6 string 0x20000077=\"\\x1b[2J\" "
                           "u32[] 0x88000077=[1, 2] message 0x28000077={u32 0x08000078=7}"});
}

TEST_F(Monitoring, NamesWhatAnUndoIsAbout) {
  lm::message undo;
  undo.insert_u32(lm::key::command, lm::cmd::set);
  undo.insert_bool(1, false);
  lm::message change;
  change.insert_string(lm::history::key::text, "upnp config changed");
  change.insert_message(lm::history::key::undo, undo);
  router.passes(gateway, 66, request({66}, lm::cmd::addObject, 3, change));
  lm::message record = change;
  record.insert_u32_array(lm::history::key::path, {20, 5});
  lm::message page;
  page.insert_message_array(lm::key::records, {record});
  router.passes(administrator, 66, request({66}, lm::cmd::readAll, 1));
  router.passes(66, administrator, reply(1, page));
  EXPECT_EQ(lines(),
            (Lines{"palinode-igd -> history: request add text=\"upnp config changed\" "
                   "undo={command=set-settings enabled=false}",
                   "connection 5 -> history: request read-all",
                   "history -> connection 5: reply to read-all records=[{text=\"upnp config "
                   "changed\" undo={command=set-settings bool 0x00000001=false} path=[20, 5]}]"}));
}

// Promise: `monitor` says when a message is `truncated`.
TEST_F(Monitoring, ShowsThatSomethingIsNotShownWhole) {
  router.passes(gateway, subscribers, notification({gateway, 0}, lm::cmd::changed), true);
  router.passes(gateway, subscribers, {}, true);
  router.passes(gateway, 20, {}, true);
  EXPECT_EQ(lines(), (Lines{"palinode-igd -> all: notification changed (truncated)",
                            "palinode-igd -> all: notification (truncated)",
                            "palinode-igd -> interfaces: message (truncated)"}));
}

// Promise: `monitor --json` prints an object on each line.
TEST_F(Monitoring, PrintsAnObjectOnEachLineInJson) {
  lm::message rule;
  rule.insert_be32(lm::nat::key::addressFirst, lumen::Ipv4Address(45, 45, 45, 1).bytes());
  rule.insert_u32(0x77, 5);
  router.passes(gateway, 20, request({20, 5}, lm::cmd::addObject, 3, rule));
  router.passes(20, gateway, reply(3, lm::errorMsg(lm::errorRefused, "two\nlines\xff")), true);
  const auto result = router.lumenctl({"monitor", "--json"});
  std::istringstream out(result.out);
  std::string line;
  ASSERT_TRUE(std::getline(out, line));
  Json json = Json::parse(line);
  EXPECT_GT(json["time"].get<double>(), 1.7e9);
  json.erase("time");
  EXPECT_EQ(json.dump(), R"({"from":"palinode-igd","to":"nat","kind":"request","command":"add",)"
                         R"("fields":{"address-first":"45.45.45.1","u32 0x08000077":5}})");
  ASSERT_TRUE(std::getline(out, line));
  json = Json::parse(line);
  json.erase("time");
  EXPECT_EQ(json.dump(-1, ' ', true),
            R"({"from":"nat","to":"palinode-igd","kind":"error","command":"add",)"
            R"("error":"two\nlines\ufffd","fields":{},"cut":true})");
  EXPECT_FALSE(std::getline(out, line));
}

TEST_F(Monitoring, PutsTextInQuotesUnlessItIsOneWord) {
  for (const auto& [value, shown] :
       std::vector<std::pair<std::string, std::string>>{{"one-word", "one-word"},
                                                        {"", "\"\""},
                                                        {"two words", "\"two words\""},
                                                        {"a=b", "\"a=b\""},
                                                        {"a]", "\"a]\""},
                                                        {"\"", "\"\\\"\""},
                                                        {"\\", "\"\\\\\""},
                                                        {"~", "~"},
                                                        {"\x7f", "\"\\x7f\""},
                                                        {"\xe2\x80\xae", "\"\\xe2\\x80\\xae\""}}) {
    lm::message fields;
    fields.insert_string(lm::interfaces::key::name, value);
    router.passes(20, subscribers, notification({20, 0}, lm::cmd::changed, fields));
    EXPECT_EQ(lines(), Lines{"interfaces -> all: notification changed name=" + shown});
  }
}

TEST_F(Monitoring, IsNotHeldUpByAMessageOfManyFields) {
  lm::message fields;
  for (uint32_t key = 0; key < 20'000; ++key) fields.fields().append(0x1000 + key, true);
  router.passes(gateway, subscribers, notification({gateway, 0}, lm::cmd::changed, fields));
  const std::clock_t start = std::clock();
  EXPECT_EQ(lines().size(), 1U);
  EXPECT_LT(std::clock() - start, 5 * CLOCKS_PER_SEC);
}

// Promise: `monitor` needs no more memory for requests that are never answered, and is not held up
// by a message of many fields.
TEST(MonitorOf, RequestsThatAreNeverAnsweredDoesNotGrow) {
  Monitor monitor({});
  lm::message shown;
  shown.insert_u32(lm::monitor::key::from, gateway);
  shown.insert_u32(lm::monitor::key::to, 20);
  for (uint32_t serial = 0; serial < 5'000; ++serial) {
    shown.insert_message(lm::monitor::key::message, request({20, 0}, lm::cmd::list, serial));
    EXPECT_EQ(monitor.read(shown, {}).kind, TracedMessage::Kind::request);
    ASSERT_LE(monitor.pending(), 4096U);
  }
}

TEST(MonitorTime, IsTheTimeOfDayHere) {
  setenv("TZ", "CET-1", 1);
  tzset();
  EXPECT_EQ(localTimeOfDay(TracedMessage::Time(std::chrono::milliseconds(1709251198007))),
            "00:59:58.007");
  EXPECT_EQ(localTimeOfDay({}), "01:00:00.000");
}

}  // namespace
}  // namespace lumenctl
