// The records that go both ways: what is written is read back the same.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/Fields.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/NatRules.h"

namespace lumen {
namespace {

std::vector<uint32_t> keysOf(const lm::message& m) {
  std::vector<uint32_t> keys;
  for (const lm::Field& field : m.fields()) keys.push_back(field.key);
  return keys;
}

template <typename T>
lm::message written(const T& value) {
  lm::message m;
  write(m, value);
  return m;
}

const lm::nat::Rule rule = {.disabled = true,
                            .address = 0x012d2d2d,
                            .port = 8080,
                            .protocol = 17,
                            .client = 0x0a58a8c0,
                            .clientPort = 80};

const std::vector<uint32_t> ruleKeys = {0x00fe0007, 0x00fe000a, 0x20000027, 0x000001a3, 0x08000034,
                                        0x08000035, 0x00000196, 0x08000009, 0x0800000a, 0x00000194,
                                        0x0800000b, 0x08000028, 0x000003ee, 0x080003e8, 0x080003e9,
                                        0x000003ef, 0x080003ea, 0x080003eb};

TEST(WireRecords, ReadARuleAsItWasWritten) {
  EXPECT_EQ(lm::nat::readRule(written(rule)), rule);
  EXPECT_EQ(lm::nat::readRule(written(lm::nat::Rule())), lm::nat::Rule());
}

// Promise: A rule's lease, its wish for any free port and its remote network stand after the other
// fields, and are absent from a rule that has none: a program that does not know them speaks as
// before.
TEST(WireRecords, WriteWhatARuleMayHaveAfterWhatItMustHave) {
  lm::nat::Rule leased = rule;
  std::vector<uint32_t> keys = ruleKeys;
  leased.lease = 7200;
  keys.push_back(0x08010050);
  EXPECT_EQ(keysOf(written(leased)), keys);
  leased.anyPort = true;
  keys.push_back(0x00010051);
  EXPECT_EQ(keysOf(written(leased)), keys);
  leased.remotes = {{.address = inet_addr("203.0.113.0"), .prefix = 24},
                    {.address = inet_addr("198.51.100.7"), .prefix = 32}};
  keys.insert(keys.end(), {0x88010052, 0x88010053});
  EXPECT_EQ(keysOf(written(leased)), keys);
  EXPECT_EQ(lm::nat::readRule(written(leased)), leased);
  EXPECT_EQ(written(leased).get_u32_array_ref(0x88010052),
            (std::vector<uint32_t>{0xcb007100, 0xc6336407}))
      << "203.0.113.0 and 198.51.100.7, the first byte highest";
}

TEST(WireRecords, TellALeaseOfNoTimeFromNone) {
  lm::message m = written(rule);
  EXPECT_EQ(lm::nat::readRule(m).lease, std::nullopt);
  for (const uint32_t seconds : {0U, 1U, UINT32_MAX}) {
    m.insert_u32(0x08010050, seconds);
    EXPECT_EQ(lm::nat::readRule(m).lease, seconds);
  }
}

TEST(WireRecords, ShowARemoteNetworkOfWhichAFieldIsMissing) {
  using Remotes = std::vector<lm::nat::RemoteNetwork>;
  lm::message onlyAddress = written(rule);
  onlyAddress.insert_u32_array(0x88010052, {0xcb007100});
  EXPECT_EQ(lm::nat::readRule(onlyAddress).remotes,
            (Remotes{{.address = inet_addr("203.0.113.0"), .prefix = 0}}));
  lm::message onlyPrefix = written(rule);
  onlyPrefix.insert_u32_array(0x88010053, {24});
  EXPECT_EQ(lm::nat::readRule(onlyPrefix).remotes, (Remotes{{.address = 0, .prefix = 24}}));
}

TEST(WireRecords, KeepPortsAndProtocolsThatAreTooLarge) {
  const lm::nat::Rule large = {.port = 65536 + 80, .protocol = 256 + 6, .clientPort = UINT32_MAX};
  EXPECT_EQ(lm::nat::readRule(written(large)), large);
}

// Also proves [table-rules].
TEST(WireRecords, WriteTheFieldsOfARuleInTheirOrder) { EXPECT_EQ(keysOf(written(rule)), ruleKeys); }

// Also proves [table-rules].
TEST(WireRecords, WriteBothEndsOfEachRangeOfARuleAndItsConditions) {
  const lm::message m = written(rule);
  for (const auto& [first, last] : {std::pair(0x34U, 0x35U), std::pair(9U, 10U),
                                    std::pair(0x3e8U, 0x3e9U), std::pair(0x3eaU, 0x3ebU)}) {
    EXPECT_EQ(m.get_u32(first), m.get_u32(last)) << first;
  }
  for (const uint32_t flag : {0xfe0007U, 0x1a3U, 0x196U, 0x194U, 0x3eeU, 0x3efU}) {
    EXPECT_TRUE(m.get_bool(flag)) << flag;
  }
  EXPECT_EQ(m.get_string(0x27), "dstnat");
  EXPECT_EQ(m.get_u32(0x28), 22U);
}

TEST(WireRecords, ReadAListedRuleAsItWasWritten) {
  const lm::nat::Record plain = {.rule = rule, .id = 7, .owner = "upnp"};
  EXPECT_EQ(lm::nat::readRecord(written(plain)), plain);
  for (const uint64_t number : {uint64_t{0}, uint64_t{1}, UINT64_MAX}) {
    const lm::nat::Record full = {.rule = rule,
                                  .id = UINT32_MAX,
                                  .owner = "administrator",
                                  .seconds = 61,
                                  .connections = number,
                                  .stale = true,
                                  .closed = true,
                                  .uses = number};
    EXPECT_EQ(lm::nat::readRecord(written(full)), full);
  }
}

// Also proves [table-rules].
TEST(WireRecords, WriteTheFieldsOfAListedRuleInTheirOrder) {
  std::vector<uint32_t> keys = ruleKeys;
  keys.insert(keys.end(), {0x08fe0001, 0x20010020, 0x10010021, 0x00010023, 0x00010024});
  lm::nat::Record record;
  EXPECT_EQ(keysOf(written(record)), keys) << "an unknown value is absent";
  keys.insert(keys.end() - 2, 0x10010022);
  keys.push_back(0x10010025);
  record.connections = 0;
  record.uses = 0;
  EXPECT_EQ(keysOf(written(record)), keys);
}

TEST(WireRecords, ReadTheEndOfARuleAsItWasWritten) {
  using lm::nat::End;
  for (const End end : {End::lease, End::administrator}) {
    const lm::nat::Record record = {.rule = rule, .id = 7, .owner = "pcp", .ended = end};
    EXPECT_EQ(written(record).get_u32(0x08010056), static_cast<uint32_t>(end));
    EXPECT_EQ(lm::nat::readRecord(written(record)), record);
  }
  for (const uint32_t unknown : {0U, 3U, UINT32_MAX}) {
    lm::message m = written(lm::nat::Record{.rule = rule, .owner = "pcp"});
    m.insert_u32(0x08010056, unknown);
    EXPECT_EQ(lm::nat::readRecord(m).ended, std::nullopt) << unknown;
  }
}

TEST(WireRecords, ReadARefusalAsItWasWritten) {
  using lm::nat::Denial;
  using lm::nat::Holder;
  using lm::nat::Refusal;
  for (const Refusal why :
       {Refusal::other, Refusal::policy, Refusal::full, Refusal::rights, Refusal::port}) {
    EXPECT_EQ(lm::nat::readDenial(written(Denial{.why = why})), Denial{.why = why});
  }
  for (const Holder holder :
       {Holder::otherService, Holder::sameService, Holder::administrator, Holder::router}) {
    const Denial taken = {.why = Refusal::conflict, .holder = holder};
    EXPECT_EQ(keysOf(written(taken)), (std::vector<uint32_t>{0x08010054, 0x08010055}));
    EXPECT_EQ(lm::nat::readDenial(written(taken)), taken);
  }
}

TEST(WireRecords, TakeARefusalThatIsNotKnownForAnyOther) {
  EXPECT_EQ(lm::nat::readDenial({}), lm::nat::Denial());
  for (const uint32_t unknown : {0U, 7U, UINT32_MAX}) {
    lm::message m;
    m.insert_u32(0x08010054, unknown);
    m.insert_u32(0x08010055, unknown);
    EXPECT_EQ(lm::nat::readDenial(m), lm::nat::Denial()) << unknown;
  }
}

TEST(WireRecords, ReadAnEventOfAPortAsItWasWritten) {
  const lm::nat::LogRecord plain = {.id = 1, .event = 1};
  EXPECT_EQ(lm::nat::readLogRecord(written(plain)), plain);
  const lm::nat::LogRecord full = {.id = UINT32_MAX,
                                   .event = 4,
                                   .time = UINT64_MAX,
                                   .owner = "administrator",
                                   .user = 1000,
                                   .protocol = 17,
                                   .address = 0x012d2d2d,
                                   .port = 8080,
                                   .client = 0x0a58a8c0,
                                   .clientPort = 80,
                                   .reason = "why"};
  EXPECT_EQ(lm::nat::readLogRecord(written(full)), full);
  const lm::nat::LogRecord ofPinhole = {
      .id = 2, .event = 1, .protocol = 17, .port = 8080, .reason = "why", .host = "2001:db8::10"};
  EXPECT_EQ(lm::nat::readLogRecord(written(ofPinhole)), ofPinhole);
}

// Promise: The record of an event has its fields in this order, the reason only if there is one.
TEST(WireRecords, WriteTheFieldsOfAnEventInTheirOrder) {
  std::vector<uint32_t> keys = {0x08fe0001, 0x08010040, 0x10010041, 0x20010020, 0x08010042,
                                0x0800000b, 0x08000034, 0x08000009, 0x080003e8, 0x080003ea};
  EXPECT_EQ(keysOf(written(lm::nat::LogRecord())), keys);
  keys.push_back(0x20010043);
  EXPECT_EQ(keysOf(written(lm::nat::LogRecord{.reason = "why"})), keys);
  keys = {0x08fe0001, 0x08010040, 0x10010041, 0x20010020, 0x08010042,
          0x0800000b, 0x20010044, 0x08000009, 0x20010043};
  EXPECT_EQ(keysOf(written(lm::nat::LogRecord{.reason = "why", .host = "2001:db8::10"})), keys);
}

TEST(WireRecords, ReadAnAddressAsItWasWritten) {
  const lm::addresses::Record removed = {
      .id = 3, .interface = 2, .address = 0x012d2d2d, .disabled = false, .removed = true};
  EXPECT_EQ(lm::addresses::readRecord(written(removed)), removed);
  const lm::addresses::Record disabled = {.id = 3, .interface = 2, .disabled = true};
  EXPECT_EQ(lm::addresses::readRecord(written(disabled)), disabled);
}

// Also proves [table-addresses], [address-removed].
TEST(WireRecords, WriteTheFieldsOfAnAddressInTheirOrder) {
  std::vector<uint32_t> keys = {0x08fe0001, 0x08000005, 0x08000001, 0x00fe000a};
  EXPECT_EQ(keysOf(written(lm::addresses::Record())), keys);
  keys.push_back(0x08fe0013);
  EXPECT_EQ(keysOf(written(lm::addresses::Record{.removed = true})), keys);
}

}  // namespace
}  // namespace lumen
