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
    "\tset addresses {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tchain input {\n"
    "\t\ttype filter hook input priority filter; policy accept;\n"
    "\t\ttcp dport 2828 ct state new add @addresses { ip saddr ct count over 32 } counter "
    "reject with tcp reset\n"
    "\t}\n"
    "}\n";

class ClientLimitTest : public testing::Test {
 protected:
  test::FakeNftables kernel_;
  lm::test::LogCapture log_;
};

// Also proves [connections-of-host].
TEST_F(ClientLimitTest, IsOneTableOfThisProcess) {
  limitClients(kernel_);
  EXPECT_EQ(kernel_.takeTexts(), std::vector<std::string>{table});
  EXPECT_EQ(log_.text(), "");
}

// Promise: A kernel that cannot count the connections of a host is one line of the log.
TEST_F(ClientLimitTest, IsMissedWithOneLineWhereTheKernelCannotCount) {
  kernel_.refuses(table, "Error: Could not process rule: No such file or directory\nct count");
  limitClients(kernel_);
  EXPECT_EQ(log_.text(),
            "the kernel does not limit the connections of a host: Error: Could not process rule: "
            "No such file or directory\n");
}

}  // namespace
}  // namespace lumen
