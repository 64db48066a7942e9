#include <gtest/gtest.h>

#include "ctl/FakePlatform.h"

namespace lumenctl {
namespace {

struct WebPageTest : testing::Test {
  WebPageTest() {
    router.hasLink("br-lan", 2);
    router.hasLink("wan0", 1);
    router.hasAddress("br-lan", "192.168.88.1");
    router.hasAddress("wan0", "45.45.45.1");
    router.gatewayUses("br-lan", 2);
    router.gatewayUses("wan0", 1);
  }
  std::string out(const std::vector<std::string>& arguments) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
  FakePlatform router;
};

// Promise: `web on`, `web off` and `web status` switch the status page and say where it is served,
// or why it is not.
TEST_F(WebPageTest, IsSwitchedOnAndOff) {
  router.webPageIs(false, "192.168.88.1:80 192.168.99.1:8081");
  EXPECT_EQ(out({"web"}), "The status page is switched off.\n");
  EXPECT_EQ(out({"web", "on", "--port", "81", "--name", "a.lan", "b"}),
            "status page: http://192.168.88.1/, http://192.168.99.1:8081/\n");
  EXPECT_EQ(router.changes(), std::vector<std::string>{
                                  "[42,0] fe000e 00000001=true 08000002=81 20000003=\"a.lan b\""});
  EXPECT_EQ(out({"web", "status"}),
            "The status page: http://192.168.88.1/, http://192.168.99.1:8081/\n");
  EXPECT_EQ(out({"--json", "web", "status"}),
            "{\n  \"enabled\": true,\n  \"port\": 80,\n  \"names\": \"\",\n  \"urls\": [\n"
            "    \"http://192.168.88.1/\",\n    \"http://192.168.99.1:8081/\"\n  ],\n"
            "  \"problem\": \"\"\n}\n");
  EXPECT_EQ(out({"web", "off"}), "status page: switched off\n");
  EXPECT_EQ(out({"web"}), "The status page is switched off.\n");
}

TEST_F(WebPageTest, TakesAPortFrom1To65535) {
  router.webPageIs(false, "");
  for (const char* port : {"0", "65536", "x", "-1"}) {
    EXPECT_EQ(router.lumenctl({"web", "on", "--port", port}).status, 2) << port;
  }
  EXPECT_TRUE(router.changes().empty());
}

TEST_F(WebPageTest, ThatIsNotInstalledIsRefused) {
  const auto result = router.lumenctl({"web", "on"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: no such service\n");
}

// Promise: `status` and `upnp check` say it when the port of the status page is taken.
TEST_F(WebPageTest, WhosePortIsTakenIsAClearLine) {
  router.webPageIs(true, "", "192.168.88.1:80 on br-lan: the port is taken by another program");
  EXPECT_NE(out({"status"})
                .find("\nStatus page: 192.168.88.1:80 on br-lan: the port is taken by "
                      "another program\n"),
            std::string::npos);
  EXPECT_NE(router.lumenctl({"upnp", "check"})
                .out.find("The status page is not served at 192.168.88.1:80 on br-lan: the port is "
                          "taken by another program."),
            std::string::npos);
}

// Promise: `status` never starts the status page.
TEST_F(WebPageTest, IsNotAskedWhileItIsOff) {
  router.webPageIs(false, "");
  EXPECT_EQ(out({"status"}).find("Status page"), std::string::npos);
  EXPECT_FALSE(router.wasAsked("[42,0]"));
}

}  // namespace
}  // namespace lumenctl
