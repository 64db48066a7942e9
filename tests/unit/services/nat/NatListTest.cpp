#include <chrono>

#include "lumen/runtime/Fields.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"
#include "support/TestPlatform.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;

using NatListTest = NatFixture;

Endpoint at(const char* address, uint16_t port) { return {ip(address), port}; }

Flow flow(uint8_t protocol, uint16_t port) {
  return {.protocol = protocol,
          .destination = at("45.45.45.1", port),
          .responder = at("192.168.88.10", 80)};
}

// Promise [table-rules]: A listed rule has the fields of its add request in their order, then id,
// owner, seconds open, connections now, `stale`, `closed` and connections since it was added.
// Promise: The owner of a rule is the name of the service that added it, or `administrator`.
TEST_F(NatListTest, ListsTheFieldsOfTheAddRequestThenTheOthers) {
  opens({});
  clock.advance(61'999ms);
  flows.flows = {flow(6, 8080), flow(6, 8080), flow(17, 8080), flow(6, 9999)};
  lm::message expected = lm::test::contentOf(addRequest({}));
  expected.insert_u32(0xfe0001, 1);
  expected.insert_string(0x20010020, "upnp");
  expected.insert_u64(0x10010021, 61);
  expected.insert_u64(0x10010022, 2);
  expected.insert_bool(0x10023, false);
  expected.insert_bool(0x10024, false);
  expected.insert_u64(0x10010025, 17);
  counts({.protocol = "udp"}, 5);
  counts({}, 17);
  auto records = lists();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0], expected);
  EXPECT_EQ(rules.handle(admin, lm::cmd::readObject, idOnly(1)), expected);
}

TEST_F(NatListTest, NamesTheAdministratorAsOwner) {
  opensAs(admin, {});
  EXPECT_EQ(lists()[0].get_string(lm::nat::key::owner), "administrator");
}

// Promise: A service that may read lists the rules and reads the policy; it can change
// neither.
TEST_F(NatListTest, ShowsAServiceThatMayReadTheRules) {
  opens({});
  const lm::message page = rules.handle(reader, lm::cmd::list, {});
  EXPECT_EQ(page.size_message_array(lm::key::records), 1U);
  EXPECT_EQ(rules.handle(reader, lm::cmd::readObject, idOnly(1)).get_u32(lm::nat::key::portFirst),
            8080U);
  EXPECT_EQ(lm::getError(rules.handle(reader, lm::cmd::get, {})), "");
  EXPECT_EQ(lm::getError(rules.handle(reader, lm::cmd::set, {})), "not permitted");
  EXPECT_EQ(lm::getError(rules.handle(reader, lm::cmd::setObject, idOnly(1))), "not permitted");
  EXPECT_EQ(lm::getError(rules.handle(reader, lm::cmd::removeObject, idOnly(1))), "not permitted");
  EXPECT_EQ(portLog.handle(reader, lm::cmd::list, {}).size_message_array(lm::key::records), 3U)
      << "the port that was opened, and two refusals";
  EXPECT_EQ(lm::getError(portLog.handle(daemon, lm::cmd::list, {})), "not permitted");
}

// Promise: Readers are notified of each rule that is opened, changed, closed or ends
// with its program: the record, without the numbers of connections. That of a rule which has left
// the table says `removed`.
TEST_F(NatListTest, NotifiesReadersOfEachChangeOfARule) {
  const auto news = [&] {
    std::vector<std::string> seen;
    for (const auto& notification : ruleNews.notified) {
      EXPECT_EQ(notification.command, lm::cmd::changed);
      EXPECT_EQ(notification.source, (std::vector<uint32_t>{20, 5}));
      for (const lm::message& m : notification.fields.get_message_array_ref(lm::key::records)) {
        const lm::nat::Record record = lm::nat::readRecord(m);
        EXPECT_FALSE(record.connections);
        seen.push_back(std::to_string(record.id) + ":" + std::to_string(record.rule.port) + " to " +
                       std::to_string(record.rule.clientPort) +
                       (record.rule.disabled ? " disabled" : "") +
                       (record.closed ? " closed" : "") +
                       (m.get_u32(lm::key::removed) != 0 ? " removed" : ""));
      }
    }
    ruleNews.notified.clear();
    return seen;
  };
  opens({});
  EXPECT_EQ(news(), Texts{"1:8080 to 80"});
  const int before = listings();
  EXPECT_EQ(lm::getError(
                rules.handle(daemon, lm::cmd::setObject, setRequest(1, "192.168.88.10", 80, true))),
            "");
  EXPECT_EQ(news(), Texts{"1:8080 to 80 disabled"});
  EXPECT_EQ(listings(), before) << "counting connections costs more than the change";
  EXPECT_EQ(lm::getError(rules.handle(daemon, lm::cmd::addObject, addRequest({}))),
            "tcp port 8080 of 45.45.45.1 is already in use");
  EXPECT_EQ(news(), Texts{});
  lm::message close = idOnly(1);
  close.insert_bool(lm::nat::key::closed, true);
  EXPECT_EQ(lm::getError(rules.handle(admin, lm::cmd::setObject, close)), "");
  EXPECT_EQ(news(), Texts{"1:8080 to 80 disabled closed"});
  EXPECT_EQ(lm::getError(rules.handle(daemon, lm::cmd::removeObject, idOnly(1))), "");
  EXPECT_EQ(news(), Texts{"1:8080 to 80 disabled closed removed"});
  opens({.port = 8081});
  opens({.port = 8082});
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(news(), (Texts{"2:8081 to 80", "3:8082 to 80", "2:8081 to 80 removed",
                           "3:8082 to 80 removed"}));
  EXPECT_TRUE(rules.isPrivate());
}

// Promise [port-stale]: A rule whose external address has left the router is kept, listed as stale,
// may be changed, and works again when the address is back.
TEST_F(NatListTest, MarksARuleWhoseAddressHasLeftTheRouter) {
  opens({});
  kernelTexts();
  networks.addresses = {{ip("45.45.45.2"), 1}};
  opens({.external = "45.45.45.2"});
  auto records = lists();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_TRUE(records[0].get_bool(lm::nat::key::stale));
  EXPECT_FALSE(records[1].get_bool(lm::nat::key::stale));
  EXPECT_EQ(kernelTexts().size(), 1U) << "the old one stays in the kernel";
  networks.addresses = {{ip("45.45.45.1"), 1}};
  EXPECT_FALSE(lists()[0].get_bool(lm::nat::key::stale));
}

TEST_F(NatListTest, ListsForHowManySecondsAPortHasBeenOpen) {
  opens({});
  passes(999ms);
  EXPECT_EQ(lists()[0].get_u64(lm::nat::key::seconds), 0U);
  passes(1ms);
  EXPECT_EQ(lists()[0].get_u64(lm::nat::key::seconds), 1U);
  passes(3600s);
  EXPECT_EQ(lists()[0].get_u64(lm::nat::key::seconds), 3601U);
}

// Promise [rule-pages]: Rules are listed in pages of 64, and connections are counted once for a
// listing, for each reader.
TEST_F(NatListTest, ListsInRisingOrderOfIdBy64AndCountsTheConnectionsOnce) {
  for (uint32_t i = 0; i < 130; ++i) {
    opens({.port = 2000 + i, .client = i < 65 ? "192.168.88.11" : "192.168.88.10"});
  }
  flows.flows = {flow(6, 2129)};
  lm::message request;
  lm::message page = rules.handle(admin, lm::cmd::readAll, request);
  EXPECT_EQ(page.size_message_array(lm::key::records), 64U);
  EXPECT_EQ(page.get_u32(lm::key::cursor), 64U);
  request.insert_u32(lm::key::cursor, 64);
  page = rules.handle(admin, lm::cmd::readAll, request);
  EXPECT_EQ(page.get_u32(lm::key::cursor), 128U);
  request.insert_u32(lm::key::cursor, 128);
  page = rules.handle(admin, lm::cmd::readAll, request);
  ASSERT_EQ(page.size_message_array(lm::key::records), 2U);
  EXPECT_EQ(page.get_u32(lm::key::cursor, lm::none), lm::none);
  EXPECT_EQ(page.get_message_array_ref(lm::key::records)[1].get_u64(lm::nat::key::connections), 1U);
  EXPECT_EQ(flows.visits, 1);
  EXPECT_EQ(listings(), 1);

  EXPECT_EQ(lists().size(), 130U);
  EXPECT_EQ(flows.visits, 2) << "a new listing counts again";
  EXPECT_EQ(listings(), 2);
}

// Also proves [rule-pages].
TEST_F(NatListTest, DoesNotShareCountsBetweenReaders) {
  for (uint32_t i = 0; i < 100; ++i) opens({.port = 2000 + i});
  Caller other = admin;
  other.connection = 10;
  lm::message second;
  second.insert_u32(lm::key::cursor, 64);
  static_cast<void>(rules.handle(other, lm::cmd::list, {}));
  flows.flows = {flow(6, 2099)};
  const lm::message page = rules.handle(admin, lm::cmd::list, second);
  EXPECT_EQ(page.get_message_array_ref(lm::key::records).back().get_u64(lm::nat::key::connections),
            1U);
}

// Also proves [rule-pages].
TEST_F(NatListTest, ForgetsTheCountOfAReaderThatEnded) {
  for (uint32_t i = 0; i < 100; ++i) opens({.port = 2000 + i});
  lm::message second;
  second.insert_u32(lm::key::cursor, 64);
  static_cast<void>(rules.handle(admin, lm::cmd::list, {}));
  rules.connectionEnded(admin.connection);
  static_cast<void>(rules.handle(admin, lm::cmd::list, second));
  EXPECT_EQ(flows.visits, 2);
}

TEST_F(NatListTest, CountsNothingForAnEmptyTable) {
  EXPECT_TRUE(lists().empty());
  EXPECT_EQ(flows.visits, 0);
  EXPECT_EQ(listings(), 0);
}

uint64_t usesOf(const lm::message& record) { return record.get_u64(lm::nat::key::uses, 12345); }

// Promise: The number of connections since a port was opened is known for a port that was changed
// or closed too, and a flow of UDP is one of them.
TEST_F(NatListTest, KeepsTheUsesOfAPortThatWasTakenOutOfTheKernel) {
  uint32_t id = opens({});
  counts({}, 3);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "");
  EXPECT_EQ(usesOf(lists()[0]), 3U);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80)), "");
  counts({}, 4);
  EXPECT_EQ(usesOf(lists()[0]), 7U);
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(usesOf(lists()[0]), 7U);
}

TEST_F(NatListTest, LeavesOutUsesThatTheKernelDoesNotReport) {
  opens({});
  opens({.port = 8081, .disabled = true});
  nftables.refuses(listMap, "Too many open files\n");
  ::testing::internal::CaptureStdout();
  auto records = lists();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "nat uses failed: Too many open files\n");
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].fields().find(lm::nat::key::uses), nullptr);
  EXPECT_EQ(usesOf(records[1]), 0U) << "it never was in the kernel";
}

// Promise: When the kernel does not report the current connections, or their number since the port
// was opened, or not all of them, the rest is listed, with `?` or `null` in their place.
TEST_F(NatListTest, LeavesOutConnectionsThatCouldNotAllBeCounted) {
  opens({});
  flows.flows = {flow(6, 8080)};
  flows.readable = false;
  EXPECT_EQ(lists()[0].fields().find(lm::nat::key::connections), nullptr);
  EXPECT_EQ(usesOf(lists()[0]), 0U) << "the rest is listed";
}

// Promise: An unknown cursor gives an empty last page, and an empty table costs no query of the
// kernel.
TEST_F(NatListTest, TakesACursorThatWasNeverIssued) {
  opens({});
  lm::message request;
  request.insert_u32(lm::key::cursor, 0xFFFFFFFE);
  lm::message page = rules.handle(admin, lm::cmd::list, request);
  EXPECT_EQ(page.size_message_array(lm::key::records), 0U);
  EXPECT_EQ(page.get_u32(lm::key::cursor, lm::none), lm::none);
}

}  // namespace

}  // namespace lumen::test
