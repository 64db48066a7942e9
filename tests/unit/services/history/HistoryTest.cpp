#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lumen/services/history/History.h"
#include "platform/Keys.h"
#include "platform/wire/History.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

namespace key = lm::history::key;

/// Keeps what is notified.
struct RecordingNotifier : Notifier {
  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    EXPECT_EQ(command, lm::cmd::changed);
    EXPECT_EQ(source, (std::vector<uint32_t>{66, 0}));
    for (const lm::message& entry : fields.get_message_array_ref(lm::key::records)) {
      entries.push_back(entry);
    }
  }
  std::vector<lm::message> entries;
};

class HistoryTest : public testing::Test {
 protected:
  static Caller gateway() {
    Caller caller;
    caller.service = 40;
    return caller;
  }
  static Caller administrator() {
    Caller caller;
    caller.administrator = true;
    return caller;
  }
  static lm::message changed(const std::string& text, uint32_t value = 7) {
    lm::message undo;
    undo.insert_u32(lm::key::command, lm::cmd::set);
    undo.insert_u32(1, value);
    lm::message request;
    request.insert_u32_array(lm::key::source, {40, 3});
    request.insert_string(key::text, text);
    request.insert_message(key::undo, undo);
    return request;
  }
  lm::message add(const lm::message& request, const Caller& caller = gateway()) {
    return history->handle(caller, lm::cmd::addObject, request);
  }
  std::vector<std::string> texts() {
    std::vector<std::string> result;
    lm::message request;
    while (true) {
      const lm::message page = history->handle(administrator(), lm::cmd::list, request);
      for (const lm::message& entry : page.get_message_array_ref(lm::key::records)) {
        result.push_back(entry.get_string(key::text));
      }
      const uint32_t cursor = page.get_u32(lm::key::cursor, lm::none);
      if (cursor == lm::none) return result;
      request.insert_u32(lm::key::cursor, cursor);
    }
  }
  std::string remove(uint32_t id, const Caller& caller = administrator()) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    return lm::getError(history->handle(caller, lm::cmd::removeObject, request));
  }
  void restart() {
    history.emplace(store.path(), notifier,
                    [] { return std::chrono::sys_seconds(1'700'000'000s); });
  }

  lm::test::TempDir store;
  RecordingNotifier notifier;
  std::optional<History> history{std::in_place, store.path(), notifier,
                                 [] { return std::chrono::sys_seconds(1'700'000'000s); }};
};

// Promise: A service that may read gets the history, and each new change as it is
// made, and may neither add to it nor remove from it.
TEST_F(HistoryTest, ShowsAServiceThatMayReadEachChange) {
  Caller reader;
  reader.service = 42;
  reader.reads = true;
  (void)add(changed("one"));
  ASSERT_EQ(notifier.entries.size(), 1U);
  const lm::message page = history->handle(reader, lm::cmd::list, {});
  ASSERT_EQ(page.size_message_array(lm::key::records), 1U);
  EXPECT_EQ(lm::test::describe(page.get_message_array_ref(lm::key::records)[0]),
            lm::test::describe(notifier.entries[0]));
  EXPECT_EQ(remove(1, reader), "not permitted");
  EXPECT_EQ(remove(1), "");
  EXPECT_EQ(notifier.entries.size(), 1U);
  EXPECT_TRUE(history->isPrivate());
}

// Promise [history-entry]: A change in the history has its text, the path that made it, the time in
// seconds since 1970 and the message that undoes it.
TEST_F(HistoryTest, RecordsTheChangeItsAuthorAndItsTime) {
  const lm::message reply = add(changed("upnp config changed"));
  EXPECT_EQ(reply.get_u32(lm::key::objectId), 1U);
  lm::message request;
  request.insert_u32(lm::key::objectId, 1);
  const lm::message entry = history->handle(administrator(), lm::cmd::readObject, request);
  EXPECT_EQ(entry.get_string(key::text), "upnp config changed");
  EXPECT_EQ(entry.get_u32_array_ref(key::path), (std::vector<uint32_t>{40, 3}));
  EXPECT_EQ(entry.get_u64(key::time), 1700000000U);
  EXPECT_EQ(entry.get_message(key::undo), changed("").get_message(key::undo));
}

// Promise: The history is listed from the oldest to the newest change.
TEST_F(HistoryTest, ListsTheOldestFirst) {
  add(changed("one"));
  add(changed("two"));
  EXPECT_EQ(texts(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(HistoryTest, IsReadCompletelyByEitherCommand) {
  add(changed("one"));
  EXPECT_EQ(history->handle(administrator(), lm::cmd::readAll, {}),
            history->handle(administrator(), lm::cmd::list, {}));
}

// Promise: A change whose path names no handler goes back to handler 0.
TEST_F(HistoryTest, UndoesAtHandlerZeroAChangeThatNamesNoHandler) {
  lm::message request = changed("one");
  request.insert_u32_array(lm::key::source, {40});
  add(request);
  lm::message first;
  first.insert_u32(lm::key::objectId, 1);
  const lm::message entry = history->handle(administrator(), lm::cmd::readObject, first);
  EXPECT_EQ(entry.get_u32_array_ref(key::path), (std::vector<uint32_t>{40, 0}));
}

// Also proves [history-size].
TEST_F(HistoryTest, SurvivesARestart) {
  add(changed("one"));
  add(changed("two"));
  restart();
  add(changed("three"));
  EXPECT_EQ(texts(), (std::vector<std::string>{"one", "two", "three"}));
}

// Promise [history-size]: The newest 100 changes are kept, across restarts and however lumend
// ended.
TEST_F(HistoryTest, KeepsTheNewestHundredAcrossRestarts) {
  for (int i = 1; i <= 103; ++i) add(changed(std::to_string(i)));
  restart();
  const std::vector<std::string> kept = texts();
  ASSERT_EQ(kept.size(), 100U);
  EXPECT_EQ(kept.front(), "4");
  EXPECT_EQ(kept.back(), "103");
  EXPECT_EQ(store.names().size(), 100U);
}

// Promise: An undone change leaves the history, once.
TEST_F(HistoryTest, ForgetsAChangeThatWasUndone) {
  add(changed("one"));
  add(changed("two"));
  EXPECT_EQ(remove(2), "");
  EXPECT_EQ(remove(2), "no such object");
  restart();
  EXPECT_EQ(texts(), std::vector<std::string>{"one"});
}

TEST_F(HistoryTest, KeepsAnEntryWhoseRemovalWasGivenUp) {
  add(changed("one"));
  add(changed("two"));
  EXPECT_EQ(remove(2), "");
  history->takeUndo()();
  EXPECT_EQ(texts(), (std::vector<std::string>{"one", "two"}));
}

// Promise [history-undo]: A change whose undo message has no command, or more than 64 KiB, is
// refused: `an undo message without a command`, `the undo message is too long`.
// Promise: A change from a program that is no service is refused: `only a service can take its
// changes back`.
// Also proves [history-text].
TEST_F(HistoryTest, RefusesAChangeThatCannotBeUndone) {
  lm::message withoutCommand = changed("x");
  withoutCommand.insert_message(key::undo, {});
  lm::message tooLong = changed("x");
  lm::message undo;
  undo.insert_u32(lm::key::command, lm::cmd::set);
  undo.insert_string(1, std::string(64 * 1024 - 15, 'x'));  // one byte too many
  tooLong.insert_message(key::undo, undo);
  const struct {
    lm::message request;
    const char* why;
  } rows[] = {
      {changed(""), "no text, or too long a one"},
      {changed(std::string(201, 'x')), "no text, or too long a one"},
      {withoutCommand, "an undo message without a command"},
      {tooLong, "the undo message is too long"},
      {{}, "no text, or too long a one"},
  };
  for (const auto& row : rows) EXPECT_EQ(lm::getError(add(row.request)), row.why);
  EXPECT_EQ(lm::getError(add(changed("x"), administrator())),
            "only a service can take its changes back");
  EXPECT_TRUE(texts().empty());
}

// Promise [history-text]: A change without text or with one of more than 200 bytes is refused: `no
// text, or too long a one`.
// Also proves [history-undo].
TEST_F(HistoryTest, TakesTheLongestTextAndTheLongestUndoMessage) {
  lm::message longest = changed(std::string(200, 'x'));
  lm::message undo;
  undo.insert_u32(lm::key::command, lm::cmd::set);
  undo.insert_string(1, std::string(64 * 1024 - 16, 'x'));
  longest.insert_message(key::undo, undo);
  EXPECT_EQ(lm::getError(add(longest)), "");
  EXPECT_EQ(texts(), std::vector<std::string>{std::string(200, 'x')});
}

// Promise [history-rights]: The history is read and shortened by administrators only: `not
// permitted`.
TEST_F(HistoryTest, ShowsAndForgetsForAdministratorsOnly) {
  add(changed("one"));
  for (const uint32_t command :
       {lm::cmd::list, lm::cmd::readAll, lm::cmd::readObject, lm::cmd::removeObject}) {
    lm::message request;
    request.insert_u32(lm::key::objectId, 1);
    EXPECT_EQ(lm::getError(history->handle(gateway(), command, request)), "not permitted");
  }
  EXPECT_EQ(texts(), std::vector<std::string>{"one"});
}

// Promise: An entry that there is not is answered with `no such object`, another command with
// `unknown command`.
TEST_F(HistoryTest, RefusesUnknownObjectsAndCommands) {
  EXPECT_EQ(lm::getError(history->handle(administrator(), 99, {})), "unknown command");
  EXPECT_EQ(lm::getError(history->handle(administrator(), lm::cmd::readObject, {})),
            "no such object");
}

// Promise: An entry that does not decode does not stop the start.
TEST_F(HistoryTest, StartsWithoutAnEntryThatIsBroken) {
  add(changed("one"));
  add(changed("two"));
  store.write("1", "broken");
  const lm::test::LogCapture log;
  restart();
  EXPECT_EQ(texts(), std::vector<std::string>{"two"});
}

// Promise: A change that cannot be stored is refused: `the change could not be stored`.
TEST_F(HistoryTest, RefusesAChangeThatCannotBeStored) {
  lm::test::LogCapture log;
  history.emplace(store.path() + "/nowhere", notifier, [] { return std::chrono::sys_seconds(); });
  EXPECT_EQ(lm::getError(add(changed("one"))), "the change could not be stored");
  EXPECT_TRUE(texts().empty());
  EXPECT_NE(log.text(), "");
}

// Promise: An entry that cannot be removed stays: `the entry could not be removed`.
TEST_F(HistoryTest, KeepsAnEntryThatCannotBeRemoved) {
  add(changed("one"));
  std::filesystem::remove(store.file("1"));
  store.makeDirectory("1");
  lm::test::LogCapture log;
  EXPECT_EQ(remove(1), "the entry could not be removed");
  EXPECT_EQ(texts(), std::vector<std::string>{"one"});
  EXPECT_NE(log.text(), "");
}

TEST_F(HistoryTest, RefusesAChangeWhoseFileCannotTakeItsPlace) {
  store.makeDirectory("1");
  lm::test::LogCapture log;
  EXPECT_EQ(lm::getError(add(changed("one"))), "the change could not be stored");
  EXPECT_TRUE(texts().empty());
  EXPECT_NE(log.text(), "");
}

// Also proves [history-entry].
TEST(HistoryClock, IsTheTimeOfDay) {
  const lm::test::TempDir store;
  RecordingNotifier notifier;
  History history(store.path(), notifier);
  Caller gateway;
  gateway.service = 40;
  lm::message undo;
  undo.insert_u32(lm::key::command, lm::cmd::set);
  lm::message request;
  request.insert_string(key::text, "one");
  request.insert_message(key::undo, undo);
  const auto before = std::chrono::system_clock::now();
  (void)history.handle(gateway, lm::cmd::addObject, request);
  const auto after = std::chrono::system_clock::now();
  Caller administrator;
  administrator.administrator = true;
  const lm::message page = history.handle(administrator, lm::cmd::list, {});
  ASSERT_EQ(page.size_message_array(lm::key::records), 1U);
  const std::chrono::sys_seconds time(
      std::chrono::seconds(page.get_message_array_ref(lm::key::records)[0].get_u64(key::time)));
  EXPECT_GE(time, std::chrono::floor<std::chrono::seconds>(before));
  EXPECT_LE(time, after);
}

}  // namespace
}  // namespace lumen
