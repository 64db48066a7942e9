#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/Records.h"
#include "lumen/services/history/HistoryKeys.h"
#include "platform/Keys.h"

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

TEST_F(History, ShowsTheNewestChangeFirst) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  router.wasChanged("upnp config\x1b changed", lm::cmd::set, {});
  const auto result = router.lumenctl({"history"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "ID  WHEN                 WHO           CHANGE\n"
            " 2  2024-03-01 00:59:58  palinode-igd  upnp config\\x1b changed\n"
            " 1  2024-03-01 00:59:58  palinode-igd  upnp interface changed\n");
}

TEST_F(History, OfAProgramWithoutHandlersIsOfItsFirst) {
  lm::message record;
  EXPECT_EQ(Change(record).service, 0U);
  record.insert_u32_array(lumen::history::key::path, {40});
  EXPECT_EQ(Change(record).service, 40U);
  EXPECT_EQ(Change(record).handler, 0U);
}

TEST_F(History, IsShownInJson) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  EXPECT_EQ(
      router.lumenctl({"history", "--json"}).out,
      "[\n  {\n    \"id\": 1,\n    \"time\": 1709251198,\n"
      "    \"service\": \"palinode-igd\",\n    \"text\": \"upnp interface changed\"\n  }\n]\n");
}

TEST_F(History, NamesAServiceThatIsNotInstalledByItsNumber) {
  router.wasChanged("upnp interface changed", lm::cmd::set, {});
  router.gatewayIsNotInstalled();
  EXPECT_NE(router.lumenctl({"history"}).out.find("  service 40  "), std::string::npos);
}

TEST_F(History, OfNothingIsSaidInWords) {
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

TEST_F(Undo, AnswersInJson) {
  EXPECT_EQ(router.lumenctl({"--json", "undo"}).out,
            "{\n  \"done\": [\n    \"undone: upnp interface changed\"\n  ]\n}\n");
}

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

TEST_F(Undo, ThatStaysInTheHistoryIsToldBoth) {
  router.refuses({66}, lm::cmd::removeObject, "the entry could not be removed");
  const auto result = router.lumenctl({"undo"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "undone: upnp interface changed\n");
  EXPECT_EQ(result.err, "lumenctl: the entry could not be removed\n");
}

TEST_F(Undo, SendsNoTransportFieldsOfWhoMadeTheChange) {
  lm::message forged;
  forged.insert_u32_array(lm::key::destination, {20, 0});
  forged.insert_bool(lm::key::isReply, true);
  forged.insert_bool(1, true);
  router.wasChanged("upnp config changed", lm::cmd::set, forged);
  EXPECT_EQ(router.lumenctl({"undo"}).status, 0);
  EXPECT_EQ(router.changes().at(0), "[40,0] fe000e 00000001=true");
}

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
