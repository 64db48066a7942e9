#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "platform/Keys.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

/// A router that was set up.
struct Upnp : testing::Test {
  Upnp() {
    router.hasLink("br-lan", 2);
    router.hasLink("wan0", 1);
    router.gatewayUses("br-lan", 2);
    router.gatewayUses("wan0", 1);
  }
  FakePlatform router;
};

TEST_F(Upnp, ShowsTheSettings) {
  router.settings().insert_bool(2, false);
  const auto result = router.lumenctl({"upnp", "settings"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "SETTING                 VALUE  MEANING\n"
            "enabled                 on     the gateway works\n"
            "allow-disable-external  off    programs on the LAN may take the external interface "
            "down and up\n"
            "show-dummy-rule         on     an inactive entry is listed, for programs that refuse "
            "an empty list of ports\n");
  EXPECT_EQ(router.requests(), Lines{"[40,0] fe000d"});
}

// Promise [ctl-settings]: `upnp settings`, and `upnp settings show`, shows the three settings with
// what they mean.
TEST_F(Upnp, ShowsTheSettingsByTheirOwnNameToo) {
  for (const Lines& options : {Lines{}, Lines{"--json"}}) {
    Lines bare = {"upnp", "settings"};
    Lines show = {"upnp", "settings", "show"};
    bare.insert(bare.end(), options.begin(), options.end());
    show.insert(show.end(), options.begin(), options.end());
    const auto result = router.lumenctl(show);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, router.lumenctl(bare).out);
  }
}

TEST_F(Upnp, ShowsTheSettingsInJson) {
  EXPECT_EQ(router.lumenctl({"upnp", "settings", "--json"}).out,
            "{\n  \"enabled\": true,\n  \"allow-disable-external\": true,\n"
            "  \"show-dummy-rule\": true\n}\n");
}

// Promise: `upnp settings set` writes all three settings at once, those that it does not name as
// they are.
TEST_F(Upnp, WritesAllThreeSettingsWhenOneIsSet) {
  router.settings().insert_bool(3, false);
  const auto result = router.lumenctl({"upnp", "settings", "set", "allow-disable-external=off"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "allow-disable-external: off\n");
  EXPECT_EQ(router.requests(),
            (Lines{"[40,0] fe000d", "[40,0] fe000e 00000001=true 00000002=false 00000003=false"}));
}

TEST_F(Upnp, SetsSeveralSettingsWithOneWrite) {
  const auto result =
      router.lumenctl({"upnp", "settings", "set", "enabled=off", "show-dummy-rule=off", "--json"});
  EXPECT_EQ(result.out,
            "{\n  \"done\": [\n    \"enabled: off\",\n    \"show-dummy-rule: off\"\n  ]\n}\n");
  EXPECT_EQ(router.changes(), Lines{"[40,0] fe000e 00000001=false 00000002=true 00000003=false"});
}

// Promise: A setting that is unknown, given twice or neither on nor off is wrong usage: `enabled is
// 'on' or 'off', not 'true'`.
TEST_F(Upnp, RefusesAnInvalidSettingBeforeAnyRequest) {
  const std::vector<std::pair<Lines, std::string>> wrong = {
      {{"enabld=on"},
       "there is no setting 'enabld', only enabled, allow-disable-external, show-dummy-rule"},
      {{"enabled"}, "write enabled=VALUE"},
      {{"enabled="}, "enabled is 'on' or 'off', not ''"},
      {{"enabled=true"}, "enabled is 'on' or 'off', not 'true'"},
      {{"enabled=on", "enabled=off"}, "setting 'enabled' is given twice"},
  };
  for (const auto& [settings, reason] : wrong) {
    Lines arguments = {"upnp", "settings", "set"};
    arguments.insert(arguments.end(), settings.begin(), settings.end());
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.err.starts_with("lumenctl: " + reason + "\n")) << result.err;
  }
  EXPECT_EQ(router.requests(), Lines{});
}

// Also proves [ctl-status].
TEST_F(Upnp, SaysWhyTheGatewayRefusedTheSettings) {
  router.refuses({40, 0}, lm::cmd::set, "not permitted");
  const auto result = router.lumenctl({"upnp", "settings", "set", "enabled=off"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "lumenctl: not permitted\n");
}

// Promise: `upnp interface list` shows which interfaces the gateway uses, with role and state, or
// `The gateway uses no interface.`
TEST_F(Upnp, ListsTheInterfacesThatTheGatewayUses) {
  router.hasLink("br-guest");
  router.gatewayUses("br-guest", 2, true);
  const auto result = router.lumenctl({"upnp", "interface", "list"});
  EXPECT_EQ(result.out,
            "INTERFACE  ROLE      USED  STATE\n"
            "br-lan     internal  yes   running\n"
            "wan0       external  yes   running\n"
            "br-guest   internal  no    running\n");
}

TEST_F(Upnp, ListsTheInterfacesInJson) {
  router.link("wan0").insert_bool(lm::key::disabled, true);
  EXPECT_EQ(router.lumenctl({"--json", "upnp", "interface", "list"}).out,
            "[\n  {\n    \"interface\": \"br-lan\",\n    \"role\": \"internal\",\n"
            "    \"used\": true,\n    \"state\": \"running\"\n  },\n"
            "  {\n    \"interface\": \"wan0\",\n    \"role\": \"external\",\n"
            "    \"used\": true,\n    \"state\": \"down\"\n  }\n]\n");
}

TEST_F(Upnp, SaysThatTheGatewayUsesNoInterface) {
  FakePlatform fresh;
  EXPECT_EQ(fresh.lumenctl({"upnp", "interface", "list"}).out, "The gateway uses no interface.\n");
  EXPECT_EQ(fresh.lumenctl({"upnp", "interface", "list", "--json"}).out, "[]\n");
}

// Promise: `upnp interface add` keeps the name first, and may add an interface that is not used
// yet.
TEST_F(Upnp, KeepsTheNameOfAnInterfaceBeforeItAddsIt) {
  const auto result = router.lumenctl({"upnp", "interface", "add", "ppp0", "--role", "external"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "ppp0: used by the gateway as external\n");
  EXPECT_EQ(router.requests(), (Lines{R"([20,0] fe0005 20010005="ppp0" 08010010=1)",
                                      "[40,0] fe0005 00fe000a=false 08000001=5 08000002=1"}));
}

TEST_F(Upnp, AddsAnInterfaceThatIsNotUsedYet) {
  const auto result =
      router.lumenctl({"upnp", "interface", "add", "ppp0", "--disable", "--role", "internal"});
  EXPECT_EQ(result.out, "ppp0: used by the gateway as internal, but disabled\n");
  EXPECT_EQ(router.changes()[1], "[40,0] fe0005 00fe000a=true 08000001=5 08000002=2");
}

// Promise: `upnp interface set` changes the role in both tables, or disables and enables the
// interface.
TEST_F(Upnp, ChangesTheRoleOfAnInterfaceInBothTables) {
  const auto result = router.lumenctl({"upnp", "interface", "set", "wan0", "--role", "internal"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.changes(),
            (Lines{R"([20,0] fe0005 20010005="wan0" 08010010=2)",
                   "[40,0] fe0003 08fe0001=4 00fe000a=false 08000001=2 08000002=2"}));
}

TEST_F(Upnp, DisablesAndEnablesAnInterface) {
  EXPECT_EQ(router.lumenctl({"upnp", "interface", "set", "wan0", "--disable"}).out,
            "wan0: used by the gateway as external, but disabled\n");
  EXPECT_EQ(router.lumenctl({"upnp", "interface", "set", "wan0", "--enable"}).out,
            "wan0: used by the gateway as external\n");
  EXPECT_EQ(router.changes(),
            (Lines{"[40,0] fe0003 08fe0001=4 00fe000a=true 08000001=2 08000002=1",
                   "[40,0] fe0003 08fe0001=4 00fe000a=false 08000001=2 08000002=1"}));
}

// Promise: `upnp interface remove` takes an interface from the gateway and keeps its name.
TEST_F(Upnp, RemovesAnInterfaceButKeepsItsName) {
  const auto result = router.lumenctl({"upnp", "interface", "remove", "wan0"});
  EXPECT_EQ(result.out, "wan0: no longer used by the gateway\n");
  EXPECT_EQ(router.changes(), Lines{"[40,0] fe0006 08fe0001=4"});
}

// Promise: An interface that there is not, or that the gateway does not use, is a refusal: `there
// is no interface 'eth9'`, `the gateway does not use interface 'eth7'`.
TEST_F(Upnp, SaysThatAnInterfaceIsUnknownOrUnused) {
  router.hasLink("eth7");
  for (const Lines& command : {Lines{"remove"}, Lines{"set", "--disable"}}) {
    Lines arguments = {"upnp", "interface"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    arguments.push_back("eth9");
    auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "lumenctl: there is no interface 'eth9'\n");
    arguments.back() = "eth7";
    result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "lumenctl: the gateway does not use interface 'eth7'\n");
  }
  EXPECT_EQ(router.changes(), Lines{});
}

}  // namespace
}  // namespace lumenctl
