#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ctl/FakePlatform.h"
#include "lumen/ctl/screen/Colours.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {
namespace {

// Promise: There are no colours in a file or a pipe, with `NO_COLOR` set to anything, on a terminal
// that is `dumb` or unnamed, and with `--json`.
TEST(Colours, AreForTerminalsThatWantThem) {
  struct Row {
    bool terminal;
    const char* noColor;
    const char* term;
    bool wanted;
    const char* reason;
  };
  const Row rows[] = {
      {true, nullptr, "xterm", true, "a terminal"},
      {true, "", "xterm", true, "an empty variable says nothing"},
      {false, nullptr, "xterm", false, "a file or a pipe"},
      {true, "1", "xterm", false, "NO_COLOR, whatever its value"},
      {true, "0", "xterm", false, "NO_COLOR, whatever its value"},
      {true, nullptr, "dumb", false, "a terminal that knows no sequences"},
      {true, nullptr, nullptr, false, "it is not known what it can do"},
      {true, nullptr, "", false, "it is not known what it can do"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(wantsColours(row.terminal, row.noColor, row.term), row.wanted) << row.reason;
  }
}

TEST(Colours, EndWhereTheTextEnds) {
  EXPECT_EQ(coloured("open", Colour::good), "\x1b[32mopen\x1b[0m");
  EXPECT_EQ(coloured("open", Colour::none), "open");
  EXPECT_EQ(coloured("", Colour::bad), "");
}

struct ColouredRouter : testing::Test {
  ColouredRouter() {
    router.machine().colours = true;
    router.hasLink("br-lan", 2);
    router.hasAddress("br-lan", "192.168.88.1");
    router.gatewayUses("br-lan", 2);
    router.hasPort(8080, 6, "192.168.88.10", 80);
    router.hasPort(8081, 6, "192.168.88.10", 80);
    router.lastPort().insert_bool(lm::nat::key::stale, true);
  }
  FakePlatform router;
};

TEST_F(ColouredRouter, ShowsWhatWorksInGreenAndWhatDoesNotInYellow) {
  const std::string out = router.lumenctl({"status"}).out;
  for (const char* text :
       {"Gateway: \x1b[32mon\x1b[0m (process 4711)\n", "\x1b[1mINTERFACE\x1b[0m",
        "\x1b[32mrunning\x1b[0m", "\x1b[32mopen\x1b[0m ", "\x1b[33mstale\x1b[0m "}) {
    EXPECT_NE(out.find(text), std::string::npos) << out;
  }
}

TEST_F(ColouredRouter, SaysTheSameWithoutColours) {
  for (const std::vector<std::string>& command : {std::vector<std::string>{"status"},
                                                  {"nat", "list"},
                                                  {"interface", "list"},
                                                  {"service", "list"},
                                                  {"upnp", "interface", "list"},
                                                  {"nat", "policy"}}) {
    router.machine().colours = true;
    std::string out = router.lumenctl(command).out;
    EXPECT_NE(out.find("\x1b["), std::string::npos) << out;
    for (size_t at = out.find('\x1b'); at != out.npos; at = out.find('\x1b')) {
      out.erase(at, out.find('m', at) + 1 - at);
    }
    router.machine().colours = false;
    EXPECT_EQ(out, router.lumenctl(command).out);
  }
}

TEST_F(ColouredRouter, GivesProgramsNone) {
  EXPECT_EQ(router.lumenctl({"status", "--json"}).out.find('\x1b'), std::string::npos);
  EXPECT_EQ(router.lumenctl({"--json", "nat", "list"}).out.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace lumenctl
