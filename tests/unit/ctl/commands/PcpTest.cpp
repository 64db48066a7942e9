#include <gtest/gtest.h>

#include "ctl/FakePlatform.h"

namespace lumenctl {
namespace {

struct PcpTest : testing::Test {
  std::string out(const std::vector<std::string>& arguments) {
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
  FakePlatform router;
};

// Promise [pcp-switch]: `pcp on`, `pcp off` and `pcp status` switch NAT-PMP and PCP and say where
// they are answered, or why they are not.
TEST_F(PcpTest, IsSwitchedOnAndOff) {
  router.pcpIs(false, "br-lan br-guest");
  EXPECT_EQ(out({"pcp"}), "NAT-PMP and PCP are switched off.\n");
  EXPECT_EQ(out({"pcp", "on"}), "NAT-PMP and PCP: UDP port 5351 on br-lan br-guest\n");
  EXPECT_EQ(router.changes(), std::vector<std::string>{"[41,0] fe000e 00000001=true"});
  EXPECT_EQ(out({"pcp", "status"}),
            "NAT-PMP and PCP: UDP port 5351 on br-lan br-guest; 2 open ports\n");
  EXPECT_EQ(out({"--json", "pcp", "status"}),
            "{\n  \"enabled\": true,\n  \"agents\": \"\",\n  \"served\": \"br-lan br-guest\",\n"
            "  \"problem\": \"\",\n  \"ports\": 2,\n  \"pinholes\": 0\n}\n");
  EXPECT_EQ(out({"pcp", "off"}), "NAT-PMP and PCP: switched off\n");
  EXPECT_EQ(out({"pcp"}), "NAT-PMP and PCP are switched off.\n");
}

TEST_F(PcpTest, NamesTheHostsThatMayAskForOthers) {
  router.pcpIs(true, "br-lan");
  EXPECT_EQ(out({"pcp", "on", "--agent", "192.168.88.5", "192.168.88.6"}),
            "NAT-PMP and PCP: UDP port 5351 on br-lan\n");
  EXPECT_EQ(router.changes(),
            std::vector<std::string>{
                "[41,0] fe000e 00000001=true 20000002=\"192.168.88.5 192.168.88.6\""});
  EXPECT_NE(out({"pcp"}).find("May open ports to other hosts: 192.168.88.5 192.168.88.6\n"),
            std::string::npos);
  EXPECT_EQ(router.lumenctl({"pcp", "on", "--agent", "host"}).status, 2);
  EXPECT_EQ(router.lumenctl({"pcp", "on", "--no-agents", "--agent", "10.0.0.1"}).status, 2);
  out({"pcp", "on", "--no-agents"});
  EXPECT_EQ(router.changes().back(), "[41,0] fe000e 00000001=true 20000002=\"\"");
}

TEST_F(PcpTest, SaysWhyItIsNotServed) {
  router.pcpIs(true, "", "UDP port 5351 on br-lan: taken by another program");
  EXPECT_EQ(out({"pcp"}),
            "NAT-PMP and PCP: UDP port 5351 on br-lan: taken by another program; 2 open ports\n");
}

TEST_F(PcpTest, ThatIsNotInstalledIsRefused) {
  const auto result = router.lumenctl({"pcp", "on"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "lumenctl: no such service\n");
}

}  // namespace
}  // namespace lumenctl
