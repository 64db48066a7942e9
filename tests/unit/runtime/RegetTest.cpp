#include <gtest/gtest.h>

#include <chrono>

#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/Reget.h"
#include "support/Describe.h"
#include "support/TestPlatform.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

class WholeTable : public testing::Test {
 protected:
  static message record(uint32_t id) {
    message m;
    m.insert_u32(key::objectId, id);
    return m;
  }
  static std::map<uint32_t, message> table(uint32_t size) {
    std::map<uint32_t, message> records;
    for (uint32_t id = 1; id <= size; ++id) records[id] = record(id);
    return records;
  }
  static message page(const std::vector<uint32_t>& ids, uint32_t cursor) {
    std::vector<message> records;
    records.reserve(ids.size());
    for (uint32_t id : ids) records.push_back(record(id));
    message m;
    m.insert_message_array(key::records, records);
    m.insert_u32(key::cursor, cursor);
    return m;
  }
  static message request() {
    message m;
    m.insert_u32_array(key::destination, {20, 0});
    m.insert_u32(key::command, cmd::list);
    return m;
  }

  static std::vector<uint32_t> readAllOf(Reget& reget) {
    std::vector<uint32_t> ids;
    while (const auto next = reget.pop()) ids.push_back(next->get_u32(key::objectId));
    EXPECT_FALSE(reget.pop()) << "the end is permanent";
    return ids;
  }

  test::TestPlatform platform_;
  Looper looper_{platform_.makeRuntime()};
};

TEST_F(WholeTable, ThatIsEmptyHasNoRecords) {
  platform_.serveTable({20, 0}, cmd::list, {});
  Reget reget(looper_, request());
  EXPECT_TRUE(readAllOf(reget).empty());
  EXPECT_FALSE(reget.error());
}

// Promise: A reader of a whole table requests a page when the previous one is used up, and returns
// its cursor unchanged.
TEST_F(WholeTable, IsReadPageByPage) {
  platform_.serveTable({20, 0}, cmd::list, table(130));
  Reget reget(looper_, request());
  EXPECT_TRUE(platform_.sent().empty()) << "nothing is requested before the first record";
  EXPECT_EQ(readAllOf(reget).size(), 130U);
  EXPECT_FALSE(reget.error());
  const auto sent = platform_.sentTo({20, 0}, cmd::list);
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].get_u32(key::cursor, 7), 7U);
  EXPECT_EQ(sent[1].get_u32(key::cursor), 64U);
  EXPECT_EQ(sent[2].get_u32(key::cursor), 128U);
}

TEST_F(WholeTable, AsksForAPageWhenTheOneBeforeIsUsedUp) {
  platform_.serveTable({20, 0}, cmd::list, table(65));
  Reget reget(looper_, request());
  for (int i = 0; i < 64; ++i) ASSERT_TRUE(reget.pop());
  EXPECT_EQ(platform_.sent().size(), 1U);
  EXPECT_EQ(reget.pop()->get_u32(key::objectId), 65U);
  EXPECT_EQ(platform_.sent().size(), 2U);
}

// Promise: A table that answers without a cursor has one page.
TEST_F(WholeTable, ASourceWithoutCursorHasOnePage) {
  message reply = page({1, 2}, 0);
  message withoutCursor;
  withoutCursor.insert_message_array(key::records, reply.get_message_array_ref(key::records));
  platform_.answer({20, 0}, cmd::list, withoutCursor);
  Reget reget(looper_, request());
  EXPECT_EQ(readAllOf(reget), (std::vector<uint32_t>{1, 2}));
}

// Promise: A reader of a whole table ends with the error of the page that failed, and keeps what it
// had read before.
TEST_F(WholeTable, EndsWithTheErrorOfAPage) {
  platform_.onRequest({20, 0}, cmd::list, [](const message& m) {
    if (m.get_u32(key::cursor, none) == none) return page({1}, 1);
    return errorMsg(errorRefused, "service unavailable");
  });
  Reget reget(looper_, request());
  EXPECT_EQ(readAllOf(reget), std::vector<uint32_t>{1});
  ASSERT_TRUE(reget.error());
  EXPECT_EQ(getError(*reget.error()), "service unavailable");
}

// Promise: A cursor that does not rise ends the reading with the error `cursor does not rise`.
TEST_F(WholeTable, EndsWithAnErrorWhenTheCursorStands) {
  platform_.answer({20, 0}, cmd::list, page({1}, 1));
  Reget reget(looper_, request());
  EXPECT_EQ(readAllOf(reget), std::vector<uint32_t>{1});
  EXPECT_EQ(getError(*reget.error()), "cursor does not rise");
  EXPECT_EQ(platform_.sent().size(), 2U);
}

TEST_F(WholeTable, EndsWithAnErrorWhenTheCursorFalls) {
  platform_.onRequest({20, 0}, cmd::list, [](const message& m) {
    return m.get_u32(key::cursor, none) == none ? page({9}, 9) : page({3}, 3);
  });
  Reget reget(looper_, request());
  EXPECT_EQ(readAllOf(reget), std::vector<uint32_t>{9});
  EXPECT_EQ(getError(*reget.error()), "cursor does not rise");
}

// Promise: The time limit of a reading counts for each page.
TEST_F(WholeTable, GivesEachPageItsTime) {
  platform_.serveTable({20, 0}, cmd::list, table(130));
  platform_.delay({20, 0}, cmd::list, 900ms);
  Reget patient(looper_, request(), 1000);
  EXPECT_EQ(readAllOf(patient).size(), 130U);
  Reget hasty(looper_, request(), 800);
  EXPECT_TRUE(readAllOf(hasty).empty());
  EXPECT_EQ(getError(*hasty.error()), "no answer in time");
}

// Also proves [commands].
TEST_F(WholeTable, AFullReadAsksForTheRecordsAsTheyAreKept) {
  platform_.serveTable({20, 0}, cmd::readAll, table(2));
  FullReget reget(looper_, request());
  EXPECT_EQ(readAllOf(reget), (std::vector<uint32_t>{1, 2}));
}

}  // namespace
}  // namespace lm
