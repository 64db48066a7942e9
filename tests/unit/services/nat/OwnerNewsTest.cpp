// What the owner of rules is notified of.

#include <chrono>
#include <optional>

#include "lumen/services/nat/NatRules.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;
using lm::nat::End;

class OwnerNewsTest : public NatFixture {
 protected:
  struct News {
    std::optional<uint64_t> owner = std::nullopt;  // none: readers only
    uint32_t id = 0;
    bool removed = false;
    bool closed = false;
    std::optional<End> ended = std::nullopt;

    bool operator==(const News&) const = default;
  };

  /// All since the last call, a record each.
  std::vector<News> news() {
    std::vector<News> result;
    for (const RecordingNotifier::Notification& one : std::exchange(ruleNews.notified, {})) {
      EXPECT_EQ(one.command, lm::cmd::changed);
      EXPECT_EQ(one.source, lm::nat::path());
      for (const lm::message& m : one.fields.get_message_array_ref(lm::key::records)) {
        const lm::nat::Record record = lm::nat::readRecord(m);
        result.push_back({.owner = one.owner,
                          .id = record.id,
                          .removed = m.get_u32(lm::key::removed) != 0,
                          .closed = record.closed,
                          .ended = record.ended});
      }
    }
    return result;
  }
};

}  // namespace

// Promise: The owner of a rule is notified when its lease ends, and when an administrator closes or
// removes it.
TEST_F(OwnerNewsTest, TellTheOwnerOfALeaseThatEnded) {
  const uint32_t id = opens({.lease = 60});
  (void)news();
  passes(60s);
  EXPECT_EQ(news(),
            (std::vector<News>{{.owner = 7, .id = id, .removed = true, .ended = End::lease}}));
}

TEST_F(OwnerNewsTest, TellTheOwnerOfAPortThatTheAdministratorClosed) {
  const uint32_t id = opens({});
  (void)news();
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(
      news(),
      (std::vector<News>{{.owner = 7, .id = id, .closed = true, .ended = End::administrator}}));
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(news(), (std::vector<News>{{.id = id, .closed = true}})) << "once";
}

TEST_F(OwnerNewsTest, TellTheOwnerOfARuleThatTheAdministratorRemoved) {
  const uint32_t id = opens({});
  (void)news();
  EXPECT_EQ(asks(admin, lm::cmd::removeObject, idOnly(id)), "");
  EXPECT_EQ(
      news(),
      (std::vector<News>{{.owner = 7, .id = id, .removed = true, .ended = End::administrator}}));
}

// Promise: When the administrator's request to close a port was given up, its owner is notified
// that the port is open again. A rule that the administrator removed stays removed.
TEST_F(OwnerNewsTest, TellTheOwnerOfAClosingThatWasUndone) {
  const uint32_t id = opens({});
  EXPECT_EQ(closes(id), "");
  (void)news();
  givesUp();
  EXPECT_EQ(news(), (std::vector<News>{{.owner = 7, .id = id}}));
}

TEST_F(OwnerNewsTest, KeepARuleRemovedOfWhichTheOwnerWasTold) {
  const uint32_t id = opens({});
  (void)rules.takeUndo();
  EXPECT_EQ(asks(admin, lm::cmd::removeObject, idOnly(id)), "");
  EXPECT_FALSE(static_cast<bool>(rules.takeUndo()));
  EXPECT_TRUE(lists().empty());
}

// Promise: The owner is not notified of what it does itself.
TEST_F(OwnerNewsTest, TellTheOwnerNothingOfWhatItDoes) {
  const uint32_t id = opens({.lease = 60});
  EXPECT_EQ(renews(id, 60), "");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "");
  EXPECT_EQ(removes(id), "");
  opens({});
  rules.connectionEnded(daemon.connection);
  const std::vector<News> all = news();
  EXPECT_EQ(all.size(), 6U);
  for (const News& one : all) {
    EXPECT_EQ(one.owner, std::nullopt);
    EXPECT_EQ(one.ended, std::nullopt);
  }
}

TEST_F(OwnerNewsTest, TellEachOwnerOfItsOwnRules) {
  const uint32_t first = opens({.port = 5001, .lease = 60});
  const uint32_t second = opensAs(otherProgram, {.port = 5002, .lease = 60});
  (void)news();
  passes(60s);
  EXPECT_EQ(news(),
            (std::vector<News>{{.owner = 7, .id = first, .removed = true, .ended = End::lease},
                               {.owner = 8, .id = second, .removed = true, .ended = End::lease}}));
}

TEST_F(OwnerNewsTest, TellTheOwnerNothingOfARuleThatTheKernelKeeps) {
  const uint32_t id = opens({});
  (void)news();
  nftables.refuses("delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }", "no memory");
  EXPECT_NE(closes(id), "");
  EXPECT_NE(asks(admin, lm::cmd::removeObject, idOnly(id)), "");
  EXPECT_EQ(news(), std::vector<News>{});
}

}  // namespace lumen::test
