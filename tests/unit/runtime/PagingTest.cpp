#include <gtest/gtest.h>

#include <map>
#include <string>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Paging.h"
#include "platform/Keys.h"
#include "support/Describe.h"

namespace lm {
namespace {

class Paging : public testing::Test {
 protected:
  void tableHas(uint32_t first, uint32_t last) {
    for (uint32_t id = first; id <= last; ++id) table_[id] = "x";
  }

  message page(uint32_t cursor) {
    message request;
    request.insert_u32(key::cursor, cursor);
    return pagedAnswer(request, table_, record);
  }
  message firstPage() { return pagedAnswer(message(), table_, record); }

  static message record(uint32_t id, const std::string& text) {
    message m;
    m.insert_u32(key::objectId, id);
    m.insert_string(1, text);
    return m;
  }

  static std::vector<uint32_t> ids(const message& answer) {
    std::vector<uint32_t> result;
    for (const message& m : answer.get_message_array_ref(key::records)) {
      result.push_back(m.get_u32(key::objectId));
    }
    return result;
  }
  static uint32_t cursor(const message& answer) { return answer.get_u32(key::cursor, 12345); }

  std::map<uint32_t, std::string> table_;
};

// Promise: An empty table is one page without records, with its record array present.
TEST_F(Paging, AnEmptyTableIsOneEmptyPage) {
  const message answer = firstPage();
  EXPECT_TRUE(answer.has_array(key::records));
  EXPECT_TRUE(ids(answer).empty());
  EXPECT_EQ(cursor(answer), none);
}

// Also proves [page-size], [page-first].
TEST_F(Paging, SixtyFourRecordsAreOnePage) {
  tableHas(1, 64);
  EXPECT_EQ(ids(firstPage()).size(), 64U);
  EXPECT_EQ(cursor(firstPage()), none);
}

// Promise [page-size]: A page of a listing holds at most 64 records, in rising order of id.
// Promise [page-cursor]: The cursor of a page is the last id in it, and `0xFFFFFFFF` after the last
// page.
TEST_F(Paging, TheSixtyFifthComesOnTheNextPage) {
  tableHas(1, 65);
  EXPECT_EQ(ids(firstPage()).size(), 64U);
  EXPECT_EQ(cursor(firstPage()), 64U);
  EXPECT_EQ(ids(page(64)), std::vector<uint32_t>{65});
  EXPECT_EQ(cursor(page(64)), none);
}

// Promise [page-first]: A request without cursor, or with the cursor `0xFFFFFFFF`, gets the first
// page.
TEST_F(Paging, ACursorOfNoneIsTheStart) {
  tableHas(5, 6);
  EXPECT_EQ(ids(page(none)), (std::vector<uint32_t>{5, 6}));
}

// Promise: A page continues after its cursor also when the record with that id has gone.
TEST_F(Paging, ContinuesAfterARecordThatHasGone) {
  tableHas(1, 3);
  table_.erase(2);
  EXPECT_EQ(ids(page(2)), std::vector<uint32_t>{3});
}

// Also proves [page-cursor].
TEST_F(Paging, HandsOutTheIdZero) {
  tableHas(0, 0);
  EXPECT_EQ(ids(firstPage()), std::vector<uint32_t>{0});
  EXPECT_TRUE(ids(page(0)).empty());
}

// Promise: A page fits a datagram however long its records are.
TEST_F(Paging, APageFitsADatagram) {
  for (uint32_t id = 1; id <= 10; ++id) table_[id] = std::string(30000, 'x');
  std::vector<uint32_t> all;
  uint32_t at = none;
  do {
    const message answer = page(at);
    EXPECT_LE(encode(answer).size(), maxDatagram);
    for (uint32_t id : ids(answer)) all.push_back(id);
    at = cursor(answer);
  } while (at != none);
  EXPECT_EQ(all, (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

}  // namespace
}  // namespace lm
