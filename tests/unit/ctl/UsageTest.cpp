#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl/FakePlatform.h"
#include "platform/Keys.h"

namespace lumenctl {
namespace {

using Lines = std::vector<std::string>;

struct Usage : testing::Test {
  FakePlatform router;
};

// Promise [ctl-status]: lumenctl ends with 0 when all was done, with 1 and `lumenctl: ` and the
// reason on standard error when the platform refused, and with 2 when it was called wrongly.
// Promise: Wrong arguments are refused before any request is sent, with the reason and which
// `--help` says more: `lumenctl nat close --help shows its usage.`
TEST_F(Usage, EndsWith2WhenTheArgumentsAreWrong) {
  const std::vector<std::pair<Lines, const char*>> wrong = {
      {{}, "no command"},
      {{"frobnicate"}, "no such command"},
      {{"status", "now"}, "an unexpected argument"},
      {{"status", "--jsn"}, "no such option"},
      {{"status", "identity"}, "two commands"},
      {{"upnp"}, "half a command"},
      {{"interface", "lst"}, "no such command of a group that lists when it stands alone"},
      {{"help", "statsu"}, "help of no command"},
      {{"help", "nat", "list", "now"}, "help of no command"},
      {{"upnp", "setup", "--internal", "--external", "wan0"}, "no internal interface"},
      {{"upnp", "setup", "--internal", "a/b", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "a b", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", ".", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "eth0:1", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "x\x7f", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "..", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "x\x1b", "--external", "wan0"}, "no name of an interface"},
      {{"upnp", "setup", "--internal", "sixteen-letters-", "--external", "wan0"},
       "too long a name"},
      {{"upnp", "settings", "set"}, "nothing to set"},
      {{"upnp", "interface", "add", "wan0"}, "no role"},
      {{"upnp", "interface", "add", "wan0", "--role", "wan"}, "no such role"},
      {{"upnp", "interface", "add", "--role", "external"}, "no interface"},
      {{"upnp", "interface", "set", "wan0"}, "nothing to set"},
      {{"upnp", "interface", "set", "wan0", "--enable", "--disable"}, "both at once"},
      {{"upnp", "interface", "remove", ""}, "no name of an interface"},
      {{"interface", "forget"}, "no interface"},
      {{"nat", "close"}, "no port"},
      {{"history", "upnp"}, "an unexpected argument"},
      {{"undo", "2"}, "an unexpected argument"},
      {{"monitor", "upnp"}, "an unexpected argument"},
      {{"--root"}, "no folder"},
  };
  for (const auto& [arguments, reason] : wrong) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 2) << reason;
    EXPECT_EQ(result.out, "") << reason;
    EXPECT_TRUE(result.err.starts_with("lumenctl: ")) << reason << ": " << result.err;
    const std::string advice = result.err.substr(result.err.find('\n') + 1);
    EXPECT_TRUE(advice.starts_with("lumenctl ")) << result.err;
    EXPECT_TRUE(advice.ends_with(" --help shows its usage.\n") ||
                advice.ends_with(" --help lists the commands.\n"))
        << result.err;
  }
  EXPECT_EQ(router.requests(), Lines{});
}

// Promise [ctl-word]: A word that is no command, or an option that there is not, is named, with the
// one that was likely meant and where the right ones are listed: `there is no command 'statsu'; did
// you mean 'status'?`, `lumenctl --help lists the commands.`
TEST_F(Usage, NamesAnUnknownWordAndTheLikelyOne) {
  const std::string toldBy = " --help shows its usage.\n";
  const std::string listedBy = " --help lists the commands.\n";
  const std::vector<std::pair<Lines, std::string>> wrong = {
      {{"statsu"}, "there is no command 'statsu'; did you mean 'status'?\nlumenctl" + listedBy},
      {{"frobnicate"}, "there is no command 'frobnicate'\nlumenctl" + listedBy},
      {{"hist"}, "there is no command 'hist'; did you mean 'history'?\nlumenctl" + listedBy},
      {{"setup", "--internal", "a"},
       "there is no command 'setup'; did you mean 'lumenctl upnp setup'?\nlumenctl" + listedBy},
      {{"list"}, "there is no command 'list'\nlumenctl" + listedBy},
      {{"nat", "lst"},
       "'lumenctl nat' has no command 'lst'; did you mean 'list'?\nlumenctl nat" + listedBy},
      {{"nat", "policy", "shwo"},
       "'lumenctl nat policy' has no command 'shwo'; did you mean 'show'?\nlumenctl nat policy" +
           listedBy},
      {{"help", "nat", "clsoe"},
       "'lumenctl nat' has no command 'clsoe'; did you mean 'close'?\nlumenctl nat" + listedBy},
      {{"status", "--wacth"},
       "there is no option '--wacth'; did you mean '--watch'?\nlumenctl status" + toldBy},
      {{"nat", "list", "--jsn=1"},
       "there is no option '--jsn'; did you mean '--json'?\nlumenctl nat list" + toldBy},
      {{"status", "now"}, "unexpected argument 'now'\nlumenctl status" + toldBy},
      {{"upnp"},
       "a command is missing: setup, check, settings, interface\nlumenctl upnp" + listedBy},
      {{"nat", "close"}, "port is required\nlumenctl nat close" + toldBy},
      {{"nat", "close", "80"},
       "a port is written like 8080/tcp or 5060/udp, not '80'\nlumenctl nat close" + toldBy},
  };
  for (const auto& [arguments, said] : wrong) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "lumenctl: " + said);
  }
  EXPECT_EQ(router.requests(), Lines{});
}

TEST_F(Usage, SuggestsNothingForAVeryLongWord) {
  for (const std::string& word : {std::string("s"), std::string(100000, 's')}) {
    const auto result = router.lumenctl({word});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err.find("did you mean"), std::string::npos);
  }
}

// Also proves [ctl-escape].
TEST_F(Usage, ShowsWrongArgumentsEscaped) {
  const auto result = router.lumenctl({"\x1b[2J"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.find('\x1b'), std::string::npos);
}

// Promise [ctl-version]: `--help`, of a command too, and `--version` need no platform and end with
// 0.
TEST_F(Usage, HelpsWithoutAPlatform) {
  router.cannotBeReached();
  for (const Lines& arguments :
       {Lines{"--help"}, Lines{"upnp", "--help"}, Lines{"upnp", "setup", "--help"}, Lines{"help"},
        Lines{"help", "upnp", "setup"}}) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("Usage:"), std::string::npos) << result.out;
  }
}

// Promise [ctl-help-command]: `help COMMAND` says the same as `COMMAND --help`, and `help` the same
// as `--help`.
TEST_F(Usage, HelpsTheSameWithTheCommandAndWithTheOption) {
  EXPECT_EQ(router.lumenctl({"help"}).out, router.lumenctl({"--help"}).out);
  EXPECT_EQ(router.lumenctl({"help", "nat"}).out, router.lumenctl({"nat", "--help"}).out);
  EXPECT_EQ(router.lumenctl({"help", "nat", "policy", "set"}).out,
            router.lumenctl({"nat", "policy", "set", "--help"}).out);
}

// Promise [ctl-bare]: `interface`, `address`, `service`, `nat` and `upnp interface` alone do what
// they do with `list`.
TEST_F(Usage, ListsWhenAGroupOfCommandsStandsAlone) {
  router.hasLink("wan0", 1);
  router.hasAddress("wan0", "45.45.45.1");
  router.hasPort(8080, 6, "192.168.88.10", 80);
  for (const Lines& group : {Lines{"interface"}, Lines{"address"}, Lines{"service"}, Lines{"nat"},
                             Lines{"upnp", "interface"}}) {
    Lines listing = group;
    listing.emplace_back("list");
    for (const bool json : {false, true}) {
      Lines bare = group;
      if (json) bare.emplace_back("--json");
      if (json) listing.emplace_back("--json");
      const auto result = router.lumenctl(bare);
      EXPECT_EQ(result.status, 0) << result.err;
      EXPECT_NE(result.out, "");
      EXPECT_EQ(result.out, router.lumenctl(listing).out);
    }
  }
}

// Also proves [ctl-version].
TEST_F(Usage, SaysItsVersion) {
  const auto result = router.lumenctl({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "lumenctl " PALINODE_VERSION "\n");
}

// Promise: A platform that cannot be reached is a refusal, reported with the system's error text.
TEST_F(Usage, EndsWith1WhenThePlatformCannotBeReached) {
  router.cannotBeReached();
  const auto result = router.lumenctl({"status"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: lumend does not answer\nlumend logs to its standard output.\n");
}

// Promise [ctl-log]: When lumend cannot be reached, has ended or does not answer in time, a second
// line names its log: under systemd `To see its log: journalctl -u lumend (root, and members of adm
// or systemd-journal).`, elsewhere its standard output.
TEST_F(Usage, NamesTheLogOfAPlatformThatIsSilent) {
  const std::string journal =
      "To see its log: journalctl -u lumend (root, and members of adm or systemd-journal).\n";
  router.machine().files["/proc/1/comm"] = "systemd\n";
  for (const std::string why : {"no answer in time", "connection ended"}) {
    router.leavesUnanswered({65}, lm::cmd::get, why);
    EXPECT_EQ(router.lumenctl({"identity"}).err, "lumenctl: " + why + "\n" + journal);
  }

  router.cannotBeReached();
  EXPECT_EQ(router.lumenctl({"status"}).err, "lumenctl: lumend does not answer\n" + journal);
  EXPECT_EQ(
      router.lumenctl({"--root", "/d\x1b", "status"}).err,
      "lumenctl: lumend does not answer\nlumend --root /d\\x1b logs to its standard output.\n");
  router.machine().files["/proc/1/comm"] = "runit\n";
  EXPECT_EQ(router.lumenctl({"status"}).err,
            "lumenctl: lumend does not answer\nlumend logs to its standard output.\n");
}

// Also proves [ctl-log].
TEST_F(Usage, NamesNoLogOfAPlatformThatRefuses) {
  for (const std::string why : {"not permitted", "no answer in time"}) {
    router.refuses({65}, lm::cmd::get, why);
    EXPECT_EQ(router.lumenctl({"identity"}).err, "lumenctl: " + why + "\n");
  }
}

/// Every command that changes something, on a router where it has something to change.
const std::vector<Lines> changing = {
    {"interface", "forget", "br-lan"},
    {"nat", "close", "8080/tcp"},
    {"nat", "close", "443/tcp", "2001:db8::10"},
    {"nat", "policy", "set", "max-rules=1"},
    {"nat", "policy", "reset"},
    {"nat", "policy", "reload"},
    {"upnp", "settings", "set", "enabled=on"},
    {"upnp", "interface", "add", "wan1", "--role", "external"},
    {"upnp", "interface", "set", "wan0", "--disable"},
    {"upnp", "interface", "remove", "wan0"},
    {"upnp", "setup", "--internal", "br-lan", "--external", "wan1"},
    {"undo"},
};

void hasSomethingToChange(FakePlatform& router) {
  router.hasLink("br-lan", 2);
  router.hasLink("wan0", 1);
  router.gatewayUses("wan0", 1);
  router.hasLink("wan1", 1);
  router.hasPort(8080, 6, "192.168.88.10", 80);
  router.hasPinhole("2001:db8::10", 443, 6);
  router.wasChanged("upnp config changed", lm::cmd::set, {});
}

// Also proves [ctl-status].
TEST_F(Usage, SaysThatNothingIsDoneWhenItWasRefused) {
  hasSomethingToChange(router);
  for (const uint32_t command :
       {lm::cmd::addObject, lm::cmd::set, lm::cmd::setObject, lm::cmd::removeObject}) {
    router.refuses({20, 5}, command, "no");
    router.refuses({40, 0}, command, "no");
  }
  router.refuses({20, 0}, lm::cmd::removeObject, "no");
  router.refuses({20, 7}, lm::cmd::removeObject, "no");
  for (const Lines& arguments : changing) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 1) << result.out;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "lumenctl: no\n");
  }
}

// Promise: Every command that changes something says each thing that it did, with `--json` in an
// array `done`.
TEST_F(Usage, SaysWhatIsDoneInJsonToo) {
  for (Lines arguments : changing) {
    FakePlatform fresh;
    hasSomethingToChange(fresh);
    arguments.emplace_back("--json");
    const auto result = fresh.lumenctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with("{\n  \"done\": [\n    \"")) << result.out;
  }
}

// Promise [ctl-output]: An answer that cannot be written ends lumenctl with 1: `lumenctl: standard
// output cannot be written`.
TEST_F(Usage, EndsWith1WhenItsAnswerCannotBeWritten) {
  for (const Lines& arguments : {Lines{"identity"}, Lines{"--json", "identity"}}) {
    router.standardOutputIsFull();
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "lumenctl: standard output cannot be written\n");
  }
}

// Promise [ctl-root]: With `--root DIR`, before or after the command, lumenctl asks
// `DIR/run/lumen.sock`, however long DIR is.
TEST_F(Usage, TakesTheRootBeforeOrAfterTheCommand) {
  EXPECT_EQ(router.lumenctl({"--root", "/tmp/a", "identity"}).status, 0);
  EXPECT_EQ(router.root(), "/tmp/a");
  EXPECT_EQ(router.lumenctl({"identity", "--root", "/tmp/b"}).status, 0);
  EXPECT_EQ(router.root(), "/tmp/b");
  EXPECT_EQ(router.lumenctl({"identity"}).status, 0);
  EXPECT_EQ(router.root(), "");
}

}  // namespace
}  // namespace lumenctl
