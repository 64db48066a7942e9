#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumen/ctl/machine/SocketTable.h"

namespace lumenctl {
namespace {

// A line of /proc/net/udp, of /proc/net/tcp, and what they have in front.
constexpr const char* heading =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops             \n";

std::string line(const std::string& local, const std::string& state) {
  return "  373: " + local + " 00000000:0000 " + state +
         " 00000000:00000000 00:00000000 00000000   120        0 4711 2 0000000000000000 0       "
         "\n";
}

TEST(SocketTable, ReadsPortUserAndInode) {
  const auto sockets = boundSockets(heading + line("00000000:076C", "07"));
  ASSERT_EQ(sockets.size(), 1U);
  EXPECT_EQ(sockets[0].port, 1900U);
  EXPECT_EQ(sockets[0].user, 120U);
  EXPECT_EQ(sockets[0].inode, 4711U);
}

// Also proves [ctl-check-ports].
TEST(SocketTable, TakesSocketsThatReceiveFromAnySender) {
  const std::string unspecified(32, '0');
  for (const auto& [local, state, counts, reason] :
       std::vector<std::tuple<std::string, std::string, bool, const char*>>{
           {"00000000:0B0C", "0A", true, "listens"},
           {"0100007F:0B0C", "0A", true, "one address of IPv4"},
           {"00000000:0B0C", "07", true, "UDP"},
           {unspecified + ":0B0C", "0A", true, "every address, of IPv4 too"},
           {"0000000000000000FFFF00000100007F:0B0C", "0A", true, "an IPv4 address in IPv6"},
           {"B80D0120000000000000000001000000:0B0C", "0A", false, "an address of IPv6"},
           {"00000000:0B0C", "01", false, "a connection"},
           {"00000000:0B0C", "06", false, "a connection that has ended"}}) {
    EXPECT_EQ(boundSockets(heading + line(local, state)).size(), counts ? 1U : 0U) << reason;
  }
}

TEST(SocketTable, IgnoresInvalidLines) {
  for (const std::string text : {"", "\n", "   0: 00000000:076C 00000000:0000 07\n",
                                 "   0: 000000000076C 00000000:0000 07 0:0 0:0 0 0 0 1 0\n"}) {
    EXPECT_TRUE(boundSockets(heading + text).empty()) << text;
  }
  EXPECT_TRUE(boundSockets(heading + line("00000000:port", "07")).empty());
}

}  // namespace
}  // namespace lumenctl
