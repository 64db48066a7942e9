#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/Map.h"
#include "platform/wire/Broker.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace lm {
namespace {

using test::contentOf;
using test::describe;
using test::TestPlatform;

/// A lamp with a colour and a brightness.
class Lamp : public Object {
 public:
  [[nodiscard]] bool isStorable() const override { return storable; }
  [[nodiscard]] bool needNotify() const override { return colour != "black"; }
  [[nodiscard]] std::string getName() const override { return "lamp"; }
  void getConfig(message& config) const override {
    config.insert_string(1, colour);
    config.insert_u32(2, brightness);
  }
  void setConfig(const message& config) override {
    colour = config.get_string(1, colour);
    brightness = config.get_u32(2, brightness);
    storable = colour != "candle";
  }

  std::string colour;
  uint32_t brightness = 10;
  bool storable = true;
};

class Lamps : public Map<Lamp> {
 public:
  using Map<Lamp>::Map;

  std::vector<std::string> hooks;
  message verdict;
  std::function<void()> then;

 private:
  message objectAdded(Lamp& added) override { return hook("add " + text(added)); }
  message objectSet(Lamp& before, Lamp& after) override {
    return hook("set " + text(before) + " to " + text(after));
  }
  message objectRemoved(Lamp& removed) override { return hook("remove " + text(removed)); }

  message hook(const std::string& call) {
    hooks.push_back(call + " of " + std::to_string(objects().size()));
    if (then) then();
    return verdict;
  }
  static std::string text(const Lamp& lamp) { return std::to_string(lamp.id) + lamp.colour; }
};

using Names = std::vector<std::string>;

class ObjectMap : public testing::Test {
 protected:
  ObjectMap() { looper_.addHandler(0, lamps_); }

  static message lamp(const std::string& colour) {
    message m;
    m.insert_string(1, colour);
    return m;
  }
  static message withId(uint32_t id, message m = {}) {
    m.insert_u32(key::objectId, id);
    return m;
  }

  message add(const std::string& colour) {
    return platform_.request(0, cmd::addObject, lamp(colour));
  }
  message set(uint32_t id, const std::string& colour) {
    return platform_.request(0, cmd::setObject, withId(id, lamp(colour)));
  }
  message remove(uint32_t id) { return platform_.request(0, cmd::removeObject, withId(id)); }
  message read(uint32_t id) { return platform_.request(0, cmd::readObject, withId(id)); }
  message list() { return platform_.request(0, cmd::readAll); }

  /// The sender of the request with that serial gives it up.
  void giveUp(uint32_t serial) {
    message cancellation;
    cancellation.insert_u32(key::serial, serial);
    platform_.notify(broker::cmd::cancel, {0, 0}, cancellation);
  }

  /// The texts and messages that went to the history, since the last call.
  Names undos() {
    Names result;
    for (const message& m : platform_.sentTo({66}, cmd::addObject)) {
      result.push_back(m.get_string(1) + " " + describe(m.get_message(2)));
    }
    platform_.forgetSent();
    return result;
  }
  Names notifications() {
    Names result;
    for (const message& m : platform_.notified(cmd::changed)) {
      result.push_back(describe(contentOf(m)));
    }
    platform_.forgetSent();
    return result;
  }

  test::TempDir dir_;
  TestPlatform platform_;
  Looper looper_{platform_.makeRuntime()};
  Lamps lamps_{dir_.path(), 1, -2};
};

// Promise [object-id]: A new object gets the lowest free id, and its id is in the reply.
TEST_F(ObjectMap, AddsUnderTheLowestFreeId) {
  EXPECT_EQ(describe(add("red")), "{u32 0xfe0001=1}");
  EXPECT_EQ(describe(add("green")), "{u32 0xfe0001=2}");
  EXPECT_FALSE(isError(remove(1)));
  EXPECT_EQ(describe(add("blue")), "{u32 0xfe0001=1}");
  EXPECT_EQ(lamps_.objects().size(), 2U);
}

// Also proves [object-id].
TEST_F(ObjectMap, GivesTheHooksReplyWithTheNewId) {
  lamps_.verdict.insert_string(9, "from the hook");
  EXPECT_EQ(describe(add("red")), "{string 0x9=\"from the hook\", u32 0xfe0001=1}");
  EXPECT_EQ(describe(set(1, "blue")), "{string 0x9=\"from the hook\"}");
  EXPECT_EQ(describe(remove(1)), "{string 0x9=\"from the hook\"}");
}

// Promise: A changed object's record is written beside the old one before the change is made, and
// takes its place afterwards.
TEST_F(ObjectMap, CallsItsHooksBeforeItChanges) {
  add("red");
  set(1, "blue");
  remove(1);
  EXPECT_EQ(lamps_.hooks, (Names{"add 1red of 0", "set 1red to 1blue of 1", "remove 1blue of 1"}));
  EXPECT_TRUE(lamps_.objects().empty());
}

// Promise: Reading an object gives its id, then its fields; listing gives the same of all, page by
// page.
TEST_F(ObjectMap, ReadsAnObjectWithItsId) {
  add("red");
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}");
}

// Promise: Setting an object changes the fields that the request has and no others.
TEST_F(ObjectMap, SetsOnlyTheFieldsThatTheRequestHas) {
  add("red");
  message dim = withId(1);
  dim.insert_u32(2, 1);
  EXPECT_EQ(describe(platform_.request(0, cmd::setObject, dim)), "{}");
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=1}");
}

TEST_F(ObjectMap, ListsItsObjectsPageByPage) {
  for (int i = 0; i < 65; ++i) add("red");
  message answer = list();
  EXPECT_EQ(answer.size_message_array(key::records), 64U);
  EXPECT_EQ(answer.get_u32(key::cursor), 64U);
  message next;
  next.insert_u32(key::cursor, 64);
  answer = platform_.request(0, cmd::readAll, next);
  ASSERT_EQ(answer.size_message_array(key::records), 1U);
  EXPECT_EQ(describe(answer.get_message_array_ref(key::records)[0]),
            "{u32 0xfe0001=65, string 0x1=\"red\", u32 0x2=10}");
  EXPECT_EQ(answer.get_u32(key::cursor), none);
}

// Promise: Reading, setting or removing an unknown object is answered with `no such object`.
TEST_F(ObjectMap, AnswersThatThereIsNoSuchObject) {
  EXPECT_EQ(getError(read(1)), "no such object");
  EXPECT_EQ(getError(set(1, "red")), "no such object");
  EXPECT_EQ(getError(remove(1)), "no such object");
  EXPECT_EQ(getError(platform_.request(0, cmd::readObject)), "no such object");
  EXPECT_TRUE(lamps_.hooks.empty());
}

// Promise: Commands other than those for objects go to the handler that holds the map.
TEST_F(ObjectMap, LeavesOtherCommandsToTheHandler) {
  EXPECT_EQ(getError(platform_.request(0, cmd::get)), "unknown command");
  EXPECT_EQ(getError(platform_.request(0, cmd::list)), "unknown command");
}

// Promise [object-refused]: A refused change of an object changes, stores, notifies and undoes
// nothing.
TEST_F(ObjectMap, ChangesNothingWhenTheHookRefuses) {
  add("red");
  platform_.forgetSent();
  lamps_.verdict = errorMsg(errorRefused, "Interface already added");
  EXPECT_EQ(describe(add("green")),
            "{u32 0xff0008=16646153, string 0xff0009=\"Interface already added\"}");
  EXPECT_TRUE(isError(set(1, "blue")));
  EXPECT_TRUE(isError(remove(1)));
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}");
  EXPECT_EQ(lamps_.objects().size(), 1U);
  EXPECT_TRUE(platform_.sent().empty());
  EXPECT_EQ(dir_.names(), Names{"1"});
}

// Promise: An add request that carries an id gets that id.
// Promise: An add request with an id that is in use is refused with `object exists already`, with
// one outside the map's range with `object id out of range`.
TEST_F(ObjectMap, ARequestThatCarriesAnIdGetsIt) {
  const auto addWithId = [this](uint32_t id) {
    return platform_.request(0, cmd::addObject, withId(id, lamp("red")));
  };
  EXPECT_EQ(addWithId(7).get_u32(key::objectId), 7U);
  EXPECT_EQ(addWithId(0xFFFFFFFE).get_u32(key::objectId), 0xFFFFFFFEU);
  EXPECT_EQ(getError(addWithId(7)), "object exists already");
  EXPECT_EQ(getError(addWithId(0)), "object id out of range");
  EXPECT_EQ(getError(addWithId(none)), "object id out of range");
  EXPECT_EQ(lamps_.objects().size(), 2U);
}

// Promise [object-undo]: Each change of an object is handed to the history with the message that
// undoes it: remove for an add, the old fields for a set, the whole record with its id for a
// removal.
TEST_F(ObjectMap, EveryChangeCanBeUndone) {
  add("red");
  EXPECT_EQ(undos(), Names{"lamp added {u32 0xff0007=16646150, u32 0xfe0001=1}"});
  set(1, "blue");
  EXPECT_EQ(undos(), Names{"lamp changed {u32 0xff0007=16646147, u32 0xfe0001=1, "
                           "string 0x1=\"red\", u32 0x2=10}"});
  remove(1);
  EXPECT_EQ(undos(), Names{"lamp removed {u32 0xff0007=16646149, u32 0xfe0001=1, "
                           "string 0x1=\"blue\", u32 0x2=10}"});
}

TEST_F(ObjectMap, AChangeOfAnObjectThatIsNotStoredCannotBeUndone) {
  add("candle");
  set(1, "candle");
  remove(1);
  EXPECT_EQ(undos(), Names{});
  EXPECT_EQ(dir_.names(), Names{});
  EXPECT_TRUE(lamps_.objects().empty());
}

TEST_F(ObjectMap, AnObjectWithoutNotificationsIsNotNotified) {
  add("black");
  set(1, "black");
  remove(1);
  EXPECT_EQ(notifications(), Names{});
}

// Also proves [object-undo].
TEST_F(ObjectMap, AnUndoneRemovalComesBackAsItWas) {
  add("red");
  add("green");
  const message before = read(1);
  platform_.forgetSent();
  remove(1);
  const message undo = platform_.sentTo({66}, cmd::addObject).at(0).get_message(2);
  platform_.forgetSent();
  platform_.request(0, undo.get_u32(key::command), undo);
  EXPECT_EQ(read(1), before);
  EXPECT_EQ(undos(), Names{"lamp added {u32 0xff0007=16646150, u32 0xfe0001=1}"})
      << "so that it can be removed again";
}

// Promise [object-notify]: Each change of an object is notified to subscribers with its record, a
// removal with `0xfe0013` = 1 in it.
TEST_F(ObjectMap, SubscribersAreNotifiedOfEveryChange) {
  add("red");
  EXPECT_EQ(notifications(),
            Names{"{message[] 0xfe0002=[{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}]}"});
  set(1, "blue");
  EXPECT_EQ(notifications(),
            Names{"{message[] 0xfe0002=[{u32 0xfe0001=1, string 0x1=\"blue\", u32 0x2=10}]}"});
  remove(1);
  EXPECT_EQ(notifications(), Names{"{message[] 0xfe0002=[{u32 0xfe0001=1, string 0x1=\"blue\", "
                                   "u32 0x2=10, u32 0xfe0013=1}]}"});
}

// Promise: Objects are there again, under their ids, when the program starts the next time.
TEST_F(ObjectMap, KeepsItsObjectsForTheNextProgram) {
  add("red");
  add("green");
  add("blue");
  set(3, "white");
  remove(2);
  EXPECT_EQ(dir_.names(), (Names{"1", "3"}));

  Lamps next(dir_.path(), 1, -2);
  next.init();
  ASSERT_EQ(next.objects().size(), 2U);
  EXPECT_EQ(next.objects()[0]->colour, "red");
  EXPECT_EQ(next.objects()[1]->colour, "white");
  EXPECT_EQ(next.objects()[1]->id, 3U);
  EXPECT_TRUE(next.hooks.empty()) << "what is loaded is offered to no hook";
}

TEST_F(ObjectMap, KeepsNoTransportFieldsOnDisk) {
  add("red");
  EXPECT_EQ(describe(*decode(dir_.read("1"))), "{string 0x1=\"red\", u32 0x2=10}");
}

TEST_F(ObjectMap, ABrokenRecordDoesNotStopTheStart) {
  add("red");
  add("green");
  dir_.write("1", "broken");
  const test::LogCapture log;
  Lamps next(dir_.path(), 1, -2);
  next.init();
  EXPECT_NE(log.text().find("is broken"), std::string::npos);
  ASSERT_EQ(next.objects().size(), 1U);
  EXPECT_EQ(next.objects()[0]->colour, "green");
  EXPECT_EQ(dir_.names(), (Names{"1.broken", "2"}));
}

TEST_F(ObjectMap, RecordsOutsideItsIdsAreNotLoaded) {
  add("red");
  dir_.write("0", dir_.read("1"));
  dir_.write("4294967295", dir_.read("1"));
  Lamps next(dir_.path(), 1, -2);
  next.init();
  EXPECT_EQ(next.objects().size(), 1U);
}

// Promise [object-store]: An object change that cannot be stored is refused with `could not be
// stored` before anything else has happened.
TEST_F(ObjectMap, AFullDiskIsRefusedBeforeAnythingHasChanged) {
  add("red");
  platform_.forgetSent();
  lamps_.hooks.clear();
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit usual{};
  getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit full{4, usual.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const test::LogCapture log;
  EXPECT_EQ(getError(add("green")), "could not be stored");
  EXPECT_EQ(getError(set(1, "blue")), "could not be stored");
  setrlimit(RLIMIT_FSIZE, &usual);
  EXPECT_TRUE(lamps_.hooks.empty());
  EXPECT_TRUE(platform_.sent().empty());
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}");
  EXPECT_EQ(dir_.names(), Names{"1"});
}

TEST_F(ObjectMap, TheRecordIsSafeBeforeTheHookIsAskedAndInPlaceAfterwards) {
  lamps_.then = [this] { EXPECT_EQ(dir_.names(), Names{"1.new"}); };
  add("red");
  EXPECT_EQ(dir_.names(), Names{"1"});
  lamps_.then = [this] { EXPECT_EQ(dir_.names(), (Names{"1", "1.new"})); };
  set(1, "blue");
  EXPECT_EQ(dir_.names(), Names{"1"});
}

// Promise: A removed object's record is out of its place before the removal is made, and is back
// when that is refused.
TEST_F(ObjectMap, TheRecordIsOutOfItsPlaceBeforeTheHookIsAskedToRemove) {
  add("red");
  const std::string record = dir_.read("1");
  lamps_.then = [this] { EXPECT_EQ(dir_.names(), Names{"1.new"}); };
  lamps_.verdict = errorMsg(errorRefused, "not this one");
  EXPECT_EQ(getError(remove(1)), "not this one");
  EXPECT_EQ(getError(set(1, "candle")), "not this one");
  EXPECT_EQ(dir_.names(), Names{"1"});
  EXPECT_EQ(dir_.read("1"), record);
  lamps_.verdict = {};
  EXPECT_FALSE(isError(remove(1)));
  EXPECT_EQ(dir_.names(), Names{});
}

// Promise: An object whose record cannot be removed is refused with `could not be removed` before
// anything else has happened; one whose record has gone already is removed.
TEST_F(ObjectMap, ARecordThatTheDiskKeepsIsRefusedBeforeAnythingHasChanged) {
  add("red");
  platform_.forgetSent();
  lamps_.hooks.clear();
  dir_.makeDirectory("1.new");  // in the way
  const test::LogCapture log;
  EXPECT_EQ(getError(remove(1)), "could not be removed");
  EXPECT_EQ(getError(set(1, "candle")), "could not be removed");
  const std::string line = "store: " + dir_.file("1") + ": Is a directory\n";
  EXPECT_EQ(log.text(), line + line);
  EXPECT_TRUE(lamps_.hooks.empty());
  EXPECT_TRUE(platform_.sent().empty());
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}");
  EXPECT_TRUE(dir_.has("1"));
}

TEST_F(ObjectMap, AnAddThatItsSenderGaveUpIsUndone) {
  const uint32_t serial = platform_.postRequest(0, cmd::addObject, lamp("red"));
  platform_.turn();
  ASSERT_EQ(lamps_.objects().size(), 1U);
  giveUp(serial);
  EXPECT_TRUE(lamps_.objects().empty());
  EXPECT_EQ(dir_.names(), Names{});
  giveUp(serial);
  EXPECT_EQ(lamps_.hooks, (Names{"add 1red of 0", "remove 1red of 1"})) << "once";
}

TEST_F(ObjectMap, AChangeThatItsSenderGaveUpIsUndone) {
  add("red");
  const message before = read(1);
  giveUp(platform_.postRequest(0, cmd::setObject, withId(1, lamp("blue"))));
  EXPECT_EQ(lamps_.hooks, Names{"add 1red of 0"}) << "it was dropped from the queue";
  const uint32_t serial = platform_.postRequest(0, cmd::setObject, withId(1, lamp("blue")));
  platform_.turn();
  giveUp(serial);
  EXPECT_EQ(read(1), before);
}

TEST_F(ObjectMap, ARemovalThatItsSenderGaveUpComesBackWithItsId) {
  add("red");
  add("green");
  const message before = read(1);
  const uint32_t serial = platform_.postRequest(0, cmd::removeObject, withId(1));
  platform_.turn();
  giveUp(serial);
  EXPECT_EQ(read(1), before);
}

TEST_F(ObjectMap, OnlyTheRequestThatWasGivenUpIsUndone) {
  const uint32_t first = platform_.postRequest(0, cmd::addObject, lamp("red"));
  platform_.turn();
  add("green");
  giveUp(first);
  ASSERT_EQ(lamps_.objects().size(), 1U);
  EXPECT_EQ(lamps_.objects()[0]->colour, "green");
}

TEST_F(ObjectMap, AnUndoThatIsRefusedIsLogged) {
  const uint32_t serial = platform_.postRequest(0, cmd::addObject, lamp("red"));
  platform_.turn();
  lamps_.verdict = errorMsg(errorRefused, "too late");
  const test::LogCapture log;
  giveUp(serial);
  EXPECT_EQ(log.text(), "platform: a change that its sender gave up stays: too late\n");
  EXPECT_EQ(lamps_.objects().size(), 1U);
}

// Promise [object-replace]: A record that cannot take its place after the change was made is
// refused with `could not be stored`, and the change is undone; one that cannot be undone either
// stands, which is logged.
TEST_F(ObjectMap, AnAddWhoseRecordDoesNotTakeItsPlaceIsUndone) {
  platform_.forgetSent();
  lamps_.then = [this] { std::filesystem::remove(dir_.file("1.new")); };
  const test::LogCapture log;
  EXPECT_EQ(getError(add("red")), "could not be stored");
  EXPECT_EQ(lamps_.hooks, (Names{"add 1red of 0", "remove 1red of 1"}));
  EXPECT_TRUE(lamps_.objects().empty());
  EXPECT_TRUE(platform_.sent().empty());
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(ObjectMap, AChangeWhoseRecordDoesNotTakeItsPlaceIsUndone) {
  add("red");
  const std::string record = dir_.read("1");
  platform_.forgetSent();
  lamps_.hooks.clear();
  lamps_.then = [this] { std::filesystem::remove(dir_.file("1.new")); };
  const test::LogCapture log;
  EXPECT_EQ(getError(set(1, "blue")), "could not be stored");
  EXPECT_EQ(lamps_.hooks, (Names{"set 1red to 1blue of 1", "set 1blue to 1red of 1"}));
  EXPECT_EQ(describe(read(1)), "{u32 0xfe0001=1, string 0x1=\"red\", u32 0x2=10}");
  EXPECT_TRUE(platform_.notified(cmd::changed).empty());
  EXPECT_TRUE(platform_.sentTo({66}, cmd::addObject).empty());
  EXPECT_EQ(dir_.read("1"), record);
}

// Its file has lost its name before the hook is asked.
TEST_F(ObjectMap, ARemovalHoldsWhenItsFileStaysUnderAnotherName) {
  for (const bool removes : {true, false}) {
    add("red");
    lamps_.hooks.clear();
    lamps_.then = [this] {  // a directory is no file that could be removed
      std::filesystem::remove(dir_.file("1.new"));
      dir_.makeDirectory("1.new");
    };
    const test::LogCapture log;
    EXPECT_FALSE(isError(removes ? remove(1) : set(1, "candle")));
    EXPECT_EQ(lamps_.hooks.size(), 1U);
    lamps_.then = nullptr;
    Lamps next(dir_.path(), 1, -2);
    next.init();
    EXPECT_TRUE(next.objects().empty());
    std::filesystem::remove(dir_.file("1.new"));
  }
}

TEST_F(ObjectMap, AChangeThatIsNeitherStoredNorUndoneStands) {
  lamps_.then = [this] {
    std::filesystem::remove(dir_.file("1.new"));
    if (lamps_.hooks.size() > 1) lamps_.verdict = errorMsg(errorRefused, "too late");
  };
  const test::LogCapture log;
  EXPECT_FALSE(isError(add("red")));
  EXPECT_NE(log.text().find("store: a change that was not stored stays: too late\n"),
            std::string::npos);
  EXPECT_EQ(lamps_.objects().size(), 1U);
}

TEST_F(ObjectMap, AnObjectWhoseRecordHasGoneIsRemoved) {
  add("red");
  std::filesystem::remove(dir_.file("1"));
  EXPECT_FALSE(isError(remove(1)));
  EXPECT_TRUE(lamps_.objects().empty());
}

// Promise: An object that is not to be stored leaves no record and no undo.
TEST_F(ObjectMap, ObjectsThatAreNotStorableLeaveNoRecordAndNoUndo) {
  add("candle");
  EXPECT_EQ(dir_.names(), Names{});
  EXPECT_TRUE(undos().empty());
  set(1, "red");
  EXPECT_EQ(dir_.names(), Names{"1"});
  set(1, "candle");
  EXPECT_EQ(dir_.names(), Names{});
}

// Promise: An object more than the map has ids for is refused with `no free object id`.
TEST_F(ObjectMap, RefusesWhenAllIdsAreTaken) {
  const test::TempDir dir;
  Lamps two(dir.path(), 1, 2);
  looper_.addHandler(1, two);
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(isError(platform_.request(1, cmd::addObject, lamp("red"))));
  }
  EXPECT_EQ(getError(platform_.request(1, cmd::addObject, lamp("red"))), "no free object id");
}

// Promise: An object is stored, undone, notified and called `item` unless its class says otherwise.
TEST(PlainObject, IsAnItemThatIsStoredUndoneAndNotified) {
  struct Plain : Object {
    void getConfig(message&) const override {}
    void setConfig(const message&) override {}
  };
  const Plain plain;
  EXPECT_EQ(plain.getName(), "item");
  EXPECT_TRUE(plain.isStorable());
  EXPECT_TRUE(plain.isUndoable());
  EXPECT_TRUE(plain.needNotify());
}

}  // namespace
}  // namespace lm
