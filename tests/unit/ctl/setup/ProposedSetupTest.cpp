#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/machine/RouteTable.h"
#include "platform/Keys.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* proposal =
    "As this router's routes and addresses look:\n"
    "\n"
    "INTERFACE  ROLE      WHY\n"
    "br-lan     internal  bridge, private network (192.168.88.1)\n"
    "wan0       external  default route\n"
    "\n";
constexpr const char* question = "Set the gateway up like that? [y/N] ";
constexpr const char* done =
    "allow-disable-external: off; no program on the LAN can take wan0 down "
    "(--allow-disconnect permits it)\n"
    "br-lan: kept as internal\n"
    "wan0: kept as external\n"
    "br-lan: used by the gateway as internal\n"
    "wan0: used by the gateway as external\n"
    "gateway: switched on\n"
    "The gateway is set up. See it work: lumenctl status\n";

/// A router fresh from the box whose roles can be seen.
struct NewRouter : FakePlatform {
  NewRouter() {
    hasLink("br-lan");
    hasLink("wan0");
    hasAddress("br-lan", "192.168.88.1");
    hasAddress("wan0", "45.45.45.1");
    settings().insert_bool(1, false);
    machine().bridges = {"br-lan"};
    machine().files[routeTablePath] =
        "wan0\t00000000\t022D2D2D\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
  }
};

struct ProposedSetup : testing::Test {
  NewRouter router;
};

// Promise [ctl-ask]: `upnp setup` asks on a terminal before it does what it proposes, and `y` or
// `yes` does it; anything else changes nothing: `lumenctl: nothing was changed`, exit status 1.
TEST_F(ProposedSetup, IsDoneWhenTheUserSaysYes) {
  for (const std::string yes : {"y", "Y", "yes"}) {
    NewRouter fresh;
    fresh.machine().userTypes(yes);
    const auto result = fresh.lumenctl({"upnp", "setup"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, std::string(proposal) + question + done);
  }
}

// Also proves [ctl-ask].
TEST_F(ProposedSetup, ChangesNothingWhenTheUserSaysAnythingElse) {
  for (const std::string no : {"n", "", "no", "yn", " y", "what?"}) {
    router.machine().userTypes(no);
    const auto result = router.lumenctl({"upnp", "setup"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, std::string(proposal) + question);
    EXPECT_EQ(result.err, "lumenctl: nothing was changed\n");
  }
  EXPECT_EQ(router.changes(), Lines{});
}

// Promise: `upnp setup` on a terminal then offers the status page: by default it is switched on if
// its port is free, and stays off if another program has it.
TEST_F(ProposedSetup, OffersTheStatusPageIfItsPortIsFree) {
  struct Case {
    bool taken;
    const char* typed;
    bool on;
  };
  const Case cases[] = {{false, "", true}, {false, "y", true}, {false, "n", false},
                        {true, "", false}, {true, "y", true},  {true, "n", false}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.typed);
    NewRouter fresh;
    fresh.webPageIs(false, "192.168.88.1:80");
    if (one.taken) {
      fresh.machine().files["/proc/net/tcp"] =
          "  sl  local_address rem_address   st\n"
          "   0: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 00000000  33  0 "
          "4711\n";
    }
    fresh.machine().userTypes("y");
    fresh.machine().userTypes(one.typed);
    const auto result = fresh.lumenctl({"upnp", "setup"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find(one.taken ? "Port 80 is taken by another program; it can have "
                                          "another port later. [y/N] "
                                        : "Show a status page to browsers at home? [Y/n] "),
              std::string::npos)
        << result.out;
    EXPECT_EQ(result.out.ends_with("status page: http://192.168.88.1/\n"), one.on) << result.out;
  }
}

// Also proves [ctl-ask].
TEST_F(ProposedSetup, ChangesNothingWhenTheInputEnds) {
  router.machine().terminal = true;
  const auto result = router.lumenctl({"upnp", "setup"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(proposal) + question + "\n");
  EXPECT_EQ(router.changes(), Lines{});
}

// Also proves [ctl-yes].
TEST_F(ProposedSetup, DoesNotAskWhenTheCommandSaysYes) {
  const auto result = router.lumenctl({"upnp", "setup", "--yes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, std::string(proposal) + done);
}

// Promise [ctl-yes]: Without a terminal, and with `--json`, `upnp setup` without roles changes
// nothing, ends with 1 and says the command line that would do what it proposes; with `--yes` it
// does it at once.
TEST_F(ProposedSetup, SaysWithoutATerminalWhatWouldDoIt) {
  const auto result = router.lumenctl({"upnp", "setup"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "lumenctl: roles are missing, and without a terminal there is no way to ask. The "
            "proposal: lumenctl upnp setup --internal br-lan --external wan0\n");
  EXPECT_EQ(router.changes(), Lines{});
}

// Also proves [ctl-setup-missing].
TEST_F(ProposedSetup, SaysWithoutATerminalThatAMissingInterfaceIsAllowed) {
  const auto result = router.lumenctl({"upnp", "setup", "--external", "ppp0", "--allow-missing"});
  EXPECT_NE(result.err.find(" --internal br-lan --external ppp0 --allow-missing\n"),
            std::string::npos)
      << result.err;
}

TEST_F(ProposedSetup, SaysWithoutATerminalThatDisconnectingIsAllowed) {
  const auto result = router.lumenctl({"upnp", "setup", "--allow-disconnect"});
  EXPECT_TRUE(result.err.ends_with(" --external wan0 --allow-disconnect\n")) << result.err;
}

// Also proves [ctl-yes].
TEST_F(ProposedSetup, DoesNotAskWhenTheAnswerIsForPrograms) {
  router.machine().userTypes("y");
  const auto result = router.lumenctl({"--json", "--root", "/tmp/r", "upnp", "setup"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "{\n  \"done\": []\n}\n");
  EXPECT_EQ(result.err,
            "lumenctl: roles are missing, and with --json there is no way to ask. The "
            "proposal: lumenctl --root /tmp/r upnp setup --internal br-lan --external wan0\n");
  EXPECT_EQ(router.changes(), Lines{});
}

// Also proves [ctl-yes].
TEST_F(ProposedSetup, AnswersProgramsThatSayYesWithWhatWasDone) {
  const auto result = router.lumenctl({"--json", "upnp", "setup", "--yes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(result.out.starts_with("{\n  \"done\": [\n    \"allow-disable-external: off;"))
      << result.out;
}

TEST_F(ProposedSetup, CompletesRolesThatAreGivenInPart) {
  for (const Lines& said : {Lines{"--internal", "br-lan"}, Lines{"--external", "wan0"}}) {
    NewRouter fresh;
    Lines arguments = {"upnp", "setup"};
    arguments.insert(arguments.end(), said.begin(), said.end());
    fresh.machine().userTypes("y");
    const auto result = fresh.lumenctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("as given\n"), std::string::npos) << result.out;
    EXPECT_TRUE(result.out.ends_with(std::string(question) + done)) << result.out;
  }
}

TEST_F(ProposedSetup, TellsWhichRolesWouldEnd) {
  router.hasLink("ppp0", 1);
  router.machine().userTypes("n");
  const auto result = router.lumenctl({"upnp", "setup"});
  EXPECT_NE(result.out.find("ppp0       none      external until now\n"), std::string::npos)
      << result.out;
}

TEST_F(ProposedSetup, DoesNotAskWhenAllRolesAreGiven) {
  router.machine().userTypes("n");
  const auto result =
      router.lumenctl({"upnp", "setup", "--internal", "br-lan", "--external", "wan0"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, done);
}

// Also proves [ctl-nothing-proposed].
TEST_F(ProposedSetup, SaysWhyItHasNothingToPropose) {
  router.machine().files.clear();
  router.machine().userTypes("y");
  for (const Lines& command : {Lines{"upnp", "setup"}, Lines{"upnp", "setup", "--yes"},
                               Lines{"--json", "upnp", "setup", "--yes"}}) {
    const auto result = router.lumenctl(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "lumenctl: no interface looks like the external one: there is no default route. Say "
              "which one it is: --external IF\n");
  }
  EXPECT_EQ(router.changes(), Lines{});
}

TEST_F(ProposedSetup, NeedsThePlatform) {
  router.cannotBeReached();
  const auto result = router.lumenctl({"upnp", "setup", "--yes"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: lumend does not answer\nlumend logs to its standard output.\n");
}

}  // namespace
}  // namespace lumenctl
