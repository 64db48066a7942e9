#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/router/Records.h"
#include "platform/Keys.h"
#include "platform/wire/History.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

struct History : testing::Test {
  History() {
    setenv("TZ", "CET-1", 1);
    tzset();
  }

  FakePlatform router;
};

// Promise [ctl-history]: `history` shows the newest change first with its local time and the
// program that made it, or `Nothing was changed.`
TEST_F(History, ShowsTheNewestChangeFirst) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  router.wasChanged("upnp config\x1b changed", lm::cmd::set, {});  // to what it was
  const auto result = router.lumenctl({"history"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "ID  WHEN                 WHO           CHANGE                   INTERFACE  SETTING  "
            "BEFORE  AFTER\n"
            " 2  2024-03-01 00:59:58  palinode-igd  upnp config\\x1b changed\n"
            " 1  2024-03-01 00:59:58  palinode-igd  upnp interface changed\n");
}

TEST_F(History, OfAProgramWithoutHandlersIsOfItsFirst) {
  lm::message record;
  EXPECT_EQ(Change(record).service, 0U);
  record.insert_u32_array(lm::history::key::path, {40});
  EXPECT_EQ(Change(record).service, 40U);
  EXPECT_EQ(Change(record).handler, 0U);
}

TEST_F(History, IsShownInJson) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  EXPECT_EQ(router.lumenctl({"history", "--json"}).out,
            "[\n  {\n    \"id\": 1,\n    \"time\": 1709251198,\n"
            "    \"service\": \"palinode-igd\",\n    \"text\": \"upnp interface changed\",\n"
            "    \"changed\": []\n  }\n]\n");
}

TEST_F(History, NamesAServiceThatIsNotInstalledByItsNumber) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  router.gatewayIsNotInstalled();
  EXPECT_NE(router.lumenctl({"history"}).out.find("  service 40  "), std::string::npos);
}

TEST_F(History, SaysThatItIsEmpty) {
  EXPECT_EQ(router.lumenctl({"history"}).out, "Nothing was changed.\n");
  EXPECT_EQ(router.lumenctl({"history", "--json"}).out, "[]\n");
}

TEST_F(History, IsReadToItsLastPage) {
  router.sendsShortPages();
  router.wasChanged("first", lm::cmd::set, {});
  router.wasChanged("second", lm::cmd::set, {});
  router.wasChanged("third", lm::cmd::set, {});
  const std::string out = router.lumenctl({"history"}).out;
  EXPECT_LT(out.find("third"), out.find("second"));
  EXPECT_LT(out.find("second"), out.find("first"));
  EXPECT_NE(out.find("first"), std::string::npos);
}

/// Changes of the gateway as it records them. The rows are those of the table, from the newest
/// change on, without the cells of each change as a whole.
struct Changed : History {
  Changed() {
    router.hasLink("br-lan", 2);
    router.hasLink("wan0", 1);
    router.gatewayUses("wan0", 1);  // object 3
  }

  void settingsWere(bool enabled, bool allowDisable, bool dummyRule) {
    lm::message undo;
    undo.insert_bool(1, enabled);
    undo.insert_bool(2, allowDisable);
    undo.insert_bool(3, dummyRule);
    router.wasChanged("upnp config changed", lm::cmd::set, undo);
  }
  /// `undoCommand` would write object 3 with these values.
  void objectWas(uint32_t undoCommand, uint32_t interface, uint32_t role, bool disabled) {
    lm::message undo;
    undo.insert_u32(lm::key::objectId, 3);
    undo.insert_bool(lm::key::disabled, disabled);
    undo.insert_u32(1, interface);
    undo.insert_u32(2, role);
    router.wasChanged("upnp interface changed", undoCommand, undo);
  }
  void objectWasNotThere() {
    lm::message undo;
    undo.insert_u32(lm::key::objectId, 3);
    router.wasChanged("upnp interface added", lm::cmd::removeObject, undo);
  }
  void undoNewest() { EXPECT_EQ(router.lumenctl({"undo"}).status, 0); }

  Lines rows() {
    const std::string out = router.lumenctl({"history"}).out;
    std::istringstream text(out);
    std::string line;
    std::getline(text, line);
    const size_t first = line.find("INTERFACE");
    Lines result;
    while (std::getline(text, line)) {
      std::istringstream cells(line.substr(std::min(first, line.size())));
      std::string row;
      for (std::string cell; cells >> cell;) row += (row.empty() ? "" : " ") + cell;
      result.push_back(row);
    }
    return result;
  }
};

// Promise [ctl-history-values]: `history` shows of each change of the gateway the interface, the
// setting and the value before and after, in JSON in an array `changed`.
TEST_F(Changed, IsShownAsARowForEachValue) {
  settingsWere(true, false, false);
  EXPECT_EQ(router.lumenctl({"history"}).out,
            "ID  WHEN                 WHO           CHANGE               INTERFACE  "
            "SETTING                 BEFORE  AFTER\n"
            " 4  2024-03-01 00:59:58  palinode-igd  upnp config changed             "
            "allow-disable-external  off     on\n"
            "                                                                       "
            "show-dummy-rule         off     on\n");
}

TEST_F(Changed, IsShownInJson) {
  settingsWere(true, true, false);
  objectWas(lm::cmd::setObject, 2, 1, true);
  const std::string out = router.lumenctl({"history", "--json"}).out;
  EXPECT_NE(out.find("\"changed\": [\n      {\n        \"interface\": null,\n"
                     "        \"setting\": \"show-dummy-rule\",\n        \"before\": false,\n"
                     "        \"after\": true\n      }\n    ]\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("\"changed\": [\n      {\n        \"interface\": \"wan0\",\n"
                     "        \"setting\": \"used\",\n        \"before\": false,\n"
                     "        \"after\": true\n      }\n    ]\n"),
            std::string::npos)
      << out;
}

TEST_F(Changed, LeadsFromOneChangeOfASettingToTheNext) {
  settingsWere(true, true, false);
  settingsWere(true, false, true);
  settingsWere(false, true, true);
  EXPECT_EQ(rows(), (Lines{"enabled off on", "enabled on off", "allow-disable-external off on",
                           "allow-disable-external on off", "show-dummy-rule off on"}));
}

TEST_F(Changed, OfAnInterfaceHasItsNameRoleAndUse) {
  objectWasNotThere();
  objectWas(lm::cmd::setObject, 2, 2, false);
  objectWas(lm::cmd::setObject, 2, 1, true);
  EXPECT_EQ(rows(), (Lines{"wan0 used no yes", "wan0 role internal external", "wan0 used yes no",
                           "wan0 role none internal", "wan0 used no yes"}));
}

TEST_F(Changed, OfAnInterfaceThatWasRemovedHasWhatItWas) {
  objectWas(lm::cmd::addObject, 2, 1, false);
  EXPECT_EQ(router.lumenctl({"upnp", "interface", "remove", "wan0"}).status, 0);
  EXPECT_EQ(rows(), (Lines{"wan0 role external none", "wan0 used yes no"}));
}

TEST_F(Changed, OfAnObjectThatGotAnotherInterfaceNamesBoth) {
  objectWas(lm::cmd::setObject, 1, 1, false);
  objectWas(lm::cmd::setObject, 77, 1, false);
  EXPECT_EQ(rows(), (Lines{"interface 77 interface interface 77 wan0",
                           "br-lan interface br-lan interface 77"}));
}

// Promise [ctl-history-wait]: `history` shows `?`, or `null`, for a value that only a gateway could
// tell that does not answer, after five seconds at most, and leaves changes of other programs to
// their text.
TEST_F(Changed, HasNoValueAfterItWhenTheGatewayDoesNotAnswer) {
  objectWasNotThere();
  objectWas(lm::cmd::setObject, 2, 1, true);
  settingsWere(false, true, true);
  settingsWere(true, true, true);
  router.refuses({40, 0}, lm::cmd::get, "service unavailable");
  EXPECT_EQ(rows(), (Lines{"enabled on ?", "allow-disable-external on ?", "show-dummy-rule on ?",
                           "enabled off on", "wan0 role external ?", "wan0 used no ?",
                           "wan0 role none external"}));
  EXPECT_LE(router.limitOf({40, 0}), std::chrono::seconds(5));
}

// Promise [ctl-history-later]: What `history` shows of older changes stays the same when later ones
// are undone.
TEST_F(Changed, StaysTheSameWhenALaterChangeWasUndoneAnyNumberOfTimes) {
  settingsWere(true, true, false);  // show-dummy-rule is on since
  router.settings().insert_bool(2, false);
  settingsWere(true, true, true);  // allow-disable-external is off since
  const Lines before = {"allow-disable-external on off", "show-dummy-rule off on"};
  const Lines undone = {"allow-disable-external off on", "show-dummy-rule off on"};
  EXPECT_EQ(rows(), before);
  // The gateway records each undo as a change, which lumenctl's fake platform does not.
  for (int i = 0; i < 2; ++i) {
    undoNewest();
    settingsWere(true, false, true);
    EXPECT_EQ(rows(), undone);
    undoNewest();
    settingsWere(true, true, true);
    EXPECT_EQ(rows(), before);
  }
}

// Also proves [ctl-history-wait].
TEST_F(Changed, OfAnUnknownProgramHasOnlyItsText) {
  lm::message undo;
  undo.insert_bool(1, true);
  router.wasChanged("something else", 0x77, undo);
  EXPECT_EQ(rows(), Lines{""});
}

// Also proves [ctl-history-wait].
TEST_F(Changed, IsNotAskedForWhenThereIsNoChange) {
  EXPECT_EQ(router.lumenctl({"history"}).out, "Nothing was changed.\n");
  EXPECT_FALSE(router.wasAsked("[40,0]"));
}

struct Undo : History {
  Undo() {
    router.hasLink("wan0", 1);
    router.gatewayUses("wan0", 1);
    lm::message undo;
    undo.insert_u32(lm::key::objectId, 2);
    undo.insert_bool(lm::key::disabled, true);
    router.wasChanged("upnp interface changed", lm::cmd::setObject, undo);
  }
};

// Promise [ctl-undo]: `undo` sends the newest change's undo message, without transport fields, back
// to its origin, and then removes the change from the history.
TEST_F(Undo, SendsTheNewestBackToWhereItCameFromAndRemovesIt) {
  lm::message settings;
  settings.insert_bool(1, false);
  settings.insert_bool(2, true);
  settings.insert_bool(3, true);
  router.wasChanged("upnp config changed", lm::cmd::set, settings);
  const auto result = router.lumenctl({"undo"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "undone: upnp config changed\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(router.changes(), (Lines{"[40,0] fe000e 00000001=false 00000002=true 00000003=true",
                                     "[66] fe0006 08fe0001=4"}));

  router.forgetRequests();
  EXPECT_EQ(router.lumenctl({"undo"}).out, "undone: upnp interface changed\n");
  EXPECT_EQ(router.changes(),
            (Lines{"[40,0] fe0003 08fe0001=2 00fe000a=true", "[66] fe0006 08fe0001=3"}));
  EXPECT_EQ(router.lumenctl({"history"}).out, "Nothing was changed.\n");
}

// Also proves [ctl-undo].
TEST_F(Undo, AnswersInJson) {
  EXPECT_EQ(router.lumenctl({"--json", "undo"}).out,
            "{\n  \"done\": [\n    \"undone: upnp interface changed\"\n  ]\n}\n");
}

// Promise [ctl-undo-refused]: An undo that is refused stays the newest; of one that was done but
// stays in the history both are reported.
TEST_F(Undo, ThatIsRefusedStaysTheNewest) {
  router.refuses({40, 0}, lm::cmd::setObject, "Interface already added");
  for (int i = 0; i < 2; ++i) {
    router.forgetRequests();
    const auto result = router.lumenctl({"undo"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "lumenctl: Interface already added\n");
    EXPECT_EQ(router.changes(), Lines{"[40,0] fe0003 08fe0001=2 00fe000a=true"});
  }
}

TEST_F(Undo, ThatCannotLeaveTheHistoryReportsBoth) {
  router.refuses({66}, lm::cmd::removeObject, "the entry could not be removed");
  const auto result = router.lumenctl({"undo"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "undone: upnp interface changed\n");
  EXPECT_EQ(result.err, "lumenctl: the entry could not be removed\n");
}

// Also proves [ctl-undo].
TEST_F(Undo, SendsNoTransportFieldsOfTheChange) {
  lm::message forged;
  forged.insert_u32_array(lm::key::destination, {20, 0});
  forged.insert_bool(lm::key::isReply, true);
  forged.insert_bool(1, true);
  router.wasChanged("upnp config changed", lm::cmd::set, forged);
  EXPECT_EQ(router.lumenctl({"undo"}).status, 0);
  EXPECT_EQ(router.changes().at(0), "[40,0] fe000e 00000001=true");
}

// Promise: With nothing to undo `undo` is refused: `lumenctl: there is nothing to undo`.
TEST_F(Undo, OfNothingIsRefused) {
  EXPECT_EQ(router.lumenctl({"undo"}).status, 0);
  router.forgetRequests();
  const auto result = router.lumenctl({"undo"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "lumenctl: there is nothing to undo\n");
  EXPECT_EQ(router.changes(), Lines{});
}

}  // namespace
}  // namespace lumenctl
