#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumen/services/fence/ClientLimit.h"
#include "services/nat/FakeKernel.h"
#include "support/LogCapture.h"

namespace lumen {
namespace {

constexpr const char* table =
    "create table ip lumen_clients { flags owner; }\n"
    "table ip lumen_clients {\n"
    "\tflags owner\n"
    "\tset paces {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset addresses {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset crowds {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset bursts {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tchain new {\n"
    "\t\tadd @paces { ip saddr limit rate over 500/second burst 1000 packets } counter drop\n"
    "\t\tadd @addresses { ip saddr ct count over 32 } goto beyond\n"
    "\t}\n"
    "\tchain beyond {\n"
    "\t\tadd @crowds { ip saddr limit rate over 10000/second burst 2 packets } counter drop\n"
    "\t\tadd @bursts { ip saddr limit rate over 10/second burst 1000 packets } counter "
    "reject with tcp reset\n"
    "\t}\n"
    "\tchain input {\n"
    "\t\ttype filter hook input priority filter; policy accept;\n"
    "\t\ttcp dport 2828 ct state new goto new\n"
    "\t}\n"
    "}\n";

class ClientLimitTest : public testing::Test {
 protected:
  test::FakeNftables kernel_;
  ClientLimit limit_{kernel_};
  lm::test::LogCapture log_;
};

// Also proves [connections-of-host].
TEST_F(ClientLimitTest, IsOneTableOfThisProcess) {
  limit_.open();
  EXPECT_EQ(kernel_.takeTexts(), std::vector<std::string>{table});
  EXPECT_EQ(log_.text(), "");
}

// Promise: A kernel that cannot count the connections of a host is one line of the log.
TEST_F(ClientLimitTest, IsMissedWithOneLineWhereTheKernelCannotCount) {
  kernel_.refuses(table, "Error: Could not process rule: No such file or directory\nct count");
  limit_.open();
  EXPECT_EQ(log_.text(),
            "the kernel does not limit the connections of a host: Error: Could not process rule: "
            "No such file or directory\n");
}

// Promise: Connections whose link or address has gone are not counted any more: the kernel would
// not see their end.
TEST_F(ClientLimitTest, CountsAgainWhenConnectionsMayHaveEndedUnseen) {
  limit_.open();
  (void)kernel_.takeTexts();
  const std::vector<std::string> flush = {"flush set ip lumen_clients addresses\n"};
  Link lan{.index = 3, .hardwareType = 1, .up = true, .running = true, .name = "br-lan"};
  const LinkAddress address{
      .address = {192, 168, 88, 1}, .network = {{192, 168, 88, 0}, 24}, .broadcast = std::nullopt};
  limit_.linkChanged(lan);
  limit_.addressAdded(3, address);
  EXPECT_EQ(kernel_.takeTexts(), std::vector<std::string>{});
  limit_.addressRemoved(3, address);
  EXPECT_EQ(kernel_.takeTexts(), flush);
  lan.running = false;
  limit_.linkChanged(lan);
  EXPECT_EQ(kernel_.takeTexts(), flush);
  limit_.linkGone(3);
  EXPECT_EQ(kernel_.takeTexts(), flush);
  limit_.tablesRead({});
  EXPECT_EQ(kernel_.takeTexts(), flush);
}

TEST_F(ClientLimitTest, CountsNothingAgainWhereTheKernelCannotCount) {
  kernel_.refuses(table, "no");
  limit_.open();
  (void)kernel_.takeTexts();
  limit_.linkGone(3);
  EXPECT_EQ(kernel_.takeTexts(), std::vector<std::string>{});
}

}  // namespace
}  // namespace lumen
