#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "lumen/web/ConnectionBook.h"

namespace lumen::web {
namespace {

using namespace std::chrono_literals;

constexpr Ipv4Address host(uint8_t number) { return {192, 168, 88, number}; }

struct ConnectionBookTest : testing::Test {
  void opens(Ipv4Address from) {
    now += 1ms;
    book.opened(++last, from, now);
  }
  ConnectionBook book;
  lm::Clock::Time now{1h};
  int last = 10;
};

// Promise: A host has at most 16 connections to the status page, 256 are open in all,
// and above that the host that has the most loses the one that waits longest.
TEST_F(ConnectionBookTest, AdmitsSixteenOfAHost) {
  for (int i = 0; i < 16; ++i) {
    EXPECT_TRUE(book.admits(host(2)));
    opens(host(2));
  }
  EXPECT_FALSE(book.admits(host(2)));
  EXPECT_TRUE(book.admits(host(3)));
  book.closed(last);
  EXPECT_TRUE(book.admits(host(2)));
  book.closed(last);
  EXPECT_EQ(book.size(), 15U) << "it was closed before";
}

TEST_F(ConnectionBookTest, TakesFromTheHostThatHasTheMost) {
  for (uint8_t i = 0; i < 240; ++i) opens(host(i));
  opens(host(250));
  const int oldestOfMany = last;
  for (int i = 0; i < 14; ++i) opens(host(250));
  EXPECT_EQ(book.toClose(), std::nullopt);
  opens(host(250));
  EXPECT_EQ(book.size(), 256U);
  EXPECT_EQ(book.toClose(), oldestOfMany);
  book.answered(oldestOfMany, now + 1s);
  EXPECT_EQ(book.toClose(), oldestOfMany + 1);
}

// Promise: A request to the status page and its answer take 30 seconds at most; a stream of events
// may last.
TEST_F(ConnectionBookTest, ReportsWhatTakesTooLong) {
  opens(host(2));
  opens(host(3));
  opens(host(4));
  book.streams(last);
  EXPECT_TRUE(book.overdue(now + 29s).empty());
  book.answered(last - 1, now + 20s);
  EXPECT_EQ(book.overdue(now + 31s), std::vector<int>{last - 2});
  EXPECT_EQ(book.overdue(now + 51s), (std::vector<int>{last - 2, last - 1}));
}

}  // namespace
}  // namespace lumen::web
