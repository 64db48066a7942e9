#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

const Lines setUp = {"upnp", "setup", "--internal", "br-lan", "--external", "wan0"};

/// A router fresh from the box: two links without a role, the gateway off.
struct Setup : testing::Test {
  Setup() {
    router.hasLink("br-lan");
    router.hasLink("wan0");
    router.settings().insert_bool(1, false);
  }
  FakePlatform router;
};

// Promise: `upnp setup` forbids a new gateway to disconnect, keeps the names, then configures the
// gateway with them, then switches it on.
TEST_F(Setup, KeepsTheNamesThenConfiguresTheGatewayThenSwitchesItOn) {
  const auto result = router.lumenctl(setUp);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.changes(), (Lines{"[40,0] fe000e 00000001=false 00000002=false 00000003=true",
                                     R"([20,0] fe0005 20010005="br-lan" 08010010=2)",
                                     R"([20,0] fe0005 20010005="wan0" 08010010=1)",
                                     "[40,0] fe0005 00fe000a=false 08000001=1 08000002=2",
                                     "[40,0] fe0005 00fe000a=false 08000001=2 08000002=1",
                                     "[40,0] fe000e 00000001=true 00000002=false 00000003=true"}));
}

// Promise: `upnp setup` says each thing that it did, in JSON too, also when something later is
// refused.
TEST_F(Setup, SaysWhatItDid) {
  EXPECT_EQ(router.lumenctl(setUp).out,
            "allow-disable-external: off; no program on the LAN can take wan0 down "
            "(--allow-disconnect permits it)\n"
            "br-lan: kept as internal\n"
            "wan0: kept as external\n"
            "br-lan: used by the gateway as internal\n"
            "wan0: used by the gateway as external\n"
            "gateway: switched on\n"
            "The gateway is set up. See it work: lumenctl status\n");
}

TEST_F(Setup, SaysWhatItDidInJson) {
  Lines arguments = setUp;
  arguments.push_back("--json");
  EXPECT_EQ(router.lumenctl(arguments).out,
            "{\n"
            "  \"done\": [\n"
            "    \"allow-disable-external: off; no program on the LAN can take wan0 down "
            "(--allow-disconnect permits it)\",\n"
            "    \"br-lan: kept as internal\",\n"
            "    \"wan0: kept as external\",\n"
            "    \"br-lan: used by the gateway as internal\",\n"
            "    \"wan0: used by the gateway as external\",\n"
            "    \"gateway: switched on\"\n"
            "  ]\n"
            "}\n");
}

// Promise [ctl-setup]: A second `upnp setup` changes nothing.
TEST_F(Setup, ChangesNothingTheSecondTime) {
  EXPECT_EQ(router.lumenctl(setUp).status, 0);
  router.forgetRequests();
  const auto again = router.lumenctl(setUp);
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out, "The gateway is set up. See it work: lumenctl status\n");
  EXPECT_EQ(router.changes(), Lines{});
}

TEST_F(Setup, ServesSeveralInternalInterfaces) {
  router.hasLink("br-guest");
  const auto result =
      router.lumenctl({"upnp", "setup", "--external", "wan0", "--internal", "br-lan", "br-guest"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.changes().size(), 8U);
  EXPECT_EQ(router.changes()[2], R"([20,0] fe0005 20010005="br-guest" 08010010=2)");
}

// Promise: `upnp setup` changes roles, enables interfaces that were disabled and leaves the other
// settings.
TEST_F(Setup, ChangesRolesThatWereTheOtherWayRound) {
  EXPECT_EQ(router.lumenctl(setUp).status, 0);
  router.forgetRequests();
  const auto result =
      router.lumenctl({"upnp", "setup", "--internal", "wan0", "--external", "br-lan"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.changes(),
            (Lines{R"([20,0] fe0005 20010005="wan0" 08010010=2)",
                   R"([20,0] fe0005 20010005="br-lan" 08010010=1)",
                   "[40,0] fe0003 08fe0001=4 00fe000a=false 08000001=2 08000002=2",
                   "[40,0] fe0003 08fe0001=3 00fe000a=false 08000001=1 08000002=1"}));
}

// Promise [ctl-setup-others]: `upnp setup` removes the interfaces that it does not name from the
// gateway, also those that do not exist any more.
TEST_F(Setup, RemovesInterfacesThatAreNotNamedFromTheGateway) {
  router.hasLink("br-old", 2);
  router.gatewayUses("br-old", 2);
  const auto result = router.lumenctl(setUp);
  EXPECT_EQ(router.changes()[2], "[40,0] fe0006 08fe0001=4");
  EXPECT_NE(result.out.find("br-old: no longer used by the gateway\n"), std::string::npos);
}

TEST_F(Setup, RemovesAnInterfaceThatNoLongerExistsFromTheGateway) {
  router.hasLink("gone");
  router.gatewayUses("gone", 2);
  router.link("gone").insert_u32(lm::key::objectId, 99);
  const auto result = router.lumenctl(setUp);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("interface 3: no longer used by the gateway\n"), std::string::npos);
}

TEST_F(Setup, EnablesAnInterfaceThatWasDisabled) {
  EXPECT_EQ(router.lumenctl({"upnp", "interface", "add", "wan0", "--role", "external", "--disable"})
                .status,
            0);
  router.forgetRequests();
  EXPECT_EQ(router.lumenctl(setUp).status, 0);
  EXPECT_EQ(router.changes()[2], "[40,0] fe0003 08fe0001=3 00fe000a=false 08000001=2 08000002=1");
}

TEST_F(Setup, KeepsTheNameOfALinkThatIsStillAwayWhenThatIsAllowed) {
  const auto result = router.lumenctl(
      {"upnp", "setup", "--internal", "br-lan", "--external", "ppp0", "--allow-missing"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(router.changes()[4], "[40,0] fe0005 00fe000a=false 08000001=3 08000002=1");
}

// Promise [ctl-setup-missing]: `upnp setup` refuses an interface that is not there now, names those
// that are and changes nothing, unless `--allow-missing` is given: `there is no interface 'nosuch'
// now, only br-lan, wan0. Nothing was changed; --allow-missing sets up an interface that comes
// later`.
TEST_F(Setup, RefusesInterfacesThatAreNotThereBeforeItChangesAnything) {
  router.hasLink("ppp0", 1);
  router.link("ppp0").insert_u32(lm::interfaces::key::index, 0);
  const std::vector<std::pair<Lines, std::string>> missing = {
      {{"--internal", "nosuch", "--external", "wan0"}, "'nosuch'"},
      {{"--internal", "br-lan", "--external", "ppp0"}, "'ppp0'"},
      {{"--internal", "br-lan", "nosuch", "--external", "ppp0"}, "'nosuch' and no 'ppp0'"},
      {{"--internal", "nosuch", "--yes"}, "'nosuch'"},
      {{"--external", "nosuch", "--yes"}, "'nosuch'"},
  };
  for (const auto& [roles, names] : missing) {
    Lines arguments = {"upnp", "setup"};
    arguments.insert(arguments.end(), roles.begin(), roles.end());
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "lumenctl: there is no interface " + names +
                              " now, only br-lan, wan0. Nothing was changed; --allow-missing sets "
                              "up an interface that comes later\n");
  }
  EXPECT_EQ(router.changes(), Lines{});
}

TEST_F(Setup, LeavesTheOtherSettingsAsTheyAre) {
  router.settings().insert_bool(2, false);
  router.settings().insert_bool(3, false);
  EXPECT_EQ(router.lumenctl(setUp).status, 0);
  EXPECT_EQ(router.changes().back(), "[40,0] fe000e 00000001=true 00000002=false 00000003=false");
  EXPECT_EQ(router.changes().size(), 5U);
}

// Promise [ctl-disconnect]: `upnp setup` sets `allow-disable-external` of a new gateway to off and
// says so, unless `--allow-disconnect` is given; a gateway that is on or has interfaces keeps it,
// and what stays on is said.
TEST_F(Setup, LetsProgramsTakeTheExternalInterfaceDownOnlyWhenItIsTold) {
  Lines arguments = setUp;
  arguments.push_back("--allow-disconnect");
  EXPECT_EQ(router.lumenctl(arguments).out,
            "br-lan: kept as internal\n"
            "wan0: kept as external\n"
            "br-lan: used by the gateway as internal\n"
            "wan0: used by the gateway as external\n"
            "gateway: switched on\n"
            "The gateway is set up. See it work: lumenctl status\n");
  EXPECT_EQ(router.changes().back(), "[40,0] fe000e 00000001=true 00000002=true 00000003=true");
}

// Also proves [ctl-disconnect].
TEST_F(Setup, KeepsWhatAConfiguredGatewayAllows) {
  constexpr const char* asBefore =
      "As before, programs on the LAN can take wan0 down and up. To end that: lumenctl upnp "
      "settings set allow-disable-external=off\n"
      "The gateway is set up. See it work: lumenctl status\n";
  Lines allowing = setUp;
  allowing.push_back("--allow-disconnect");
  EXPECT_EQ(router.lumenctl(allowing).status, 0);
  router.forgetRequests();
  EXPECT_EQ(router.lumenctl(setUp).out, asBefore);
  EXPECT_EQ(router.changes(), Lines{});

  router.settings().insert_bool(1, false);  // it is off, but has its interfaces
  EXPECT_EQ(router.lumenctl(setUp).out, std::string("gateway: switched on\n") + asBefore);
  EXPECT_TRUE(router.settings().get_bool(2));
}

// Also proves [ctl-disconnect].
TEST_F(Setup, LetsProgramsOfAConfiguredGatewayTakeItDownWhenItIsTold) {
  EXPECT_EQ(router.lumenctl(setUp).status, 0);
  router.forgetRequests();
  Lines arguments = setUp;
  arguments.push_back("--allow-disconnect");
  EXPECT_EQ(router.lumenctl(arguments).out,
            "allow-disable-external: on; programs on the LAN can take wan0 down and up\n"
            "The gateway is set up. See it work: lumenctl status\n");
  EXPECT_EQ(router.changes(), Lines{"[40,0] fe000e 00000001=true 00000002=true 00000003=true"});
}

// What failed half-way must not become a gateway that was configured already, and allows it.
TEST_F(Setup, ForbidsItBeforeTheFirstInterfaceIsAdded) {
  router.refuses({40, 0}, lm::cmd::addObject, "Interface already added");
  EXPECT_EQ(router.lumenctl(setUp).status, 1);
  EXPECT_FALSE(router.settings().get_bool(2, true));
}

// Promise: `upnp setup` leaves the gateway off when that refuses an interface.
TEST_F(Setup, LeavesTheGatewayOffWhenItRefusesAnInterface) {
  router.refuses({40, 0}, lm::cmd::addObject, "Interface already added");
  const auto result = router.lumenctl(setUp);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: Interface already added\n");
  EXPECT_EQ(result.out,
            "allow-disable-external: off; no program on the LAN can take wan0 down "
            "(--allow-disconnect permits it)\n"
            "br-lan: kept as internal\nwan0: kept as external\n");
  EXPECT_FALSE(router.settings().get_bool(1));
}

TEST_F(Setup, DoesNotSayThatTheGatewayIsOnWhenItRefuses) {
  router.refuses({40, 0}, lm::cmd::set, "not permitted");
  const auto result = router.lumenctl(setUp);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out.find("switched on"), std::string::npos) << result.out;
}

TEST_F(Setup, SaysInJsonWhatWasDoneBeforeItWasRefused) {
  router.refuses({40, 0}, lm::cmd::addObject, "Interface already added");
  Lines arguments = setUp;
  arguments.insert(arguments.begin(), "--json");
  const auto result = router.lumenctl(arguments);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "{\n  \"done\": [\n    \"allow-disable-external: off; no program on the LAN can take "
            "wan0 down (--allow-disconnect permits it)\",\n    \"br-lan: kept as internal\",\n"
            "    \"wan0: kept as external\"\n  ]\n}\n");
}

// Promise: An interface that `upnp setup` is given twice is wrong usage: `interface 'wan0' is named
// twice`.
TEST_F(Setup, RefusesAnInterfaceThatIsNamedTwiceBeforeItChangesAnything) {
  const auto result =
      router.lumenctl({"upnp", "setup", "--internal", "br-lan", "wan0", "--external", "wan0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("interface 'wan0' is named twice"), std::string::npos);
  EXPECT_EQ(router.requests(), Lines{});
}

}  // namespace
}  // namespace lumenctl
