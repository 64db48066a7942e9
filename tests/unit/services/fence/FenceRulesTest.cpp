#include <gtest/gtest.h>

#include "lumen/services/fence/FenceRules.h"

namespace lumen::fence {
namespace {

const Users twoServices = {{200, {NetworkGrant::internal}},
                           {201, {NetworkGrant::nameServers}},
                           {202, {NetworkGrant::none}},
                           {203, {NetworkGrant::internal, NetworkGrant::nameServers}},
                           {204, {NetworkGrant::answers}}};

TEST(FenceRules, RefuseWhateverFencedUsersSendAndLetOthersPass) {
  EXPECT_EQ(makeIpv4Table(twoServices),
            "create table ip lumen_fence { flags owner; }\n"
            "table ip lumen_fence {\n"
            "\tflags owner\n"
            "\tchain internal {\n"
            "\t}\n"
            "\tchain answers {\n"
            "\t}\n"
            "\tchain name_servers {\n"
            "\t}\n"
            "\tchain refuse {\n"
            "\t\tmeta l4proto tcp counter reject with tcp reset\n"
            "\t\tcounter reject\n"
            "\t}\n"
            "\tchain output {\n"
            "\t\ttype filter hook output priority mangle; policy accept;\n"
            "\t\tmeta skuid 200 jump internal\n"
            "\t\tmeta skuid 203 jump internal\n"
            "\t\tmeta skuid 204 jump answers\n"
            "\t\tmeta skuid 201 jump name_servers\n"
            "\t\tmeta skuid 203 jump name_servers\n"
            "\t\tmeta skuid { 200, 201, 202, 203, 204 } goto refuse\n"
            "\t}\n"
            "}\n");
}

TEST(FenceRules, ReachInternalHostsByIpv6WithPcpAlone) {
  EXPECT_EQ(makeIpv6Table(twoServices),
            "create table ip6 lumen_fence { flags owner; }\n"
            "table ip6 lumen_fence {\n"
            "\tflags owner\n"
            "\tchain internal {\n"
            "\t}\n"
            "\tchain name_servers {\n"
            "\t}\n"
            "\tchain refuse {\n"
            "\t\tmeta l4proto tcp counter reject with tcp reset\n"
            "\t\tcounter reject\n"
            "\t}\n"
            "\tchain output {\n"
            "\t\ttype filter hook output priority mangle; policy accept;\n"
            "\t\tmeta skuid 200 jump internal\n"
            "\t\tmeta skuid 203 jump internal\n"
            "\t\tmeta skuid 201 jump name_servers\n"
            "\t\tmeta skuid 203 jump name_servers\n"
            "\t\tmeta skuid { 200, 201, 202, 203, 204 } goto refuse\n"
            "\t}\n"
            "}\n");
  EXPECT_EQ(grantIpv6Internal({"br-guest", "br-lan"}),
            "flush chain ip6 lumen_fence internal\n"
            "add rule ip6 lumen_fence internal oifname { \"br-guest\", \"br-lan\" } udp sport 5351 "
            "ct state established ct direction reply accept\n"
            "add rule ip6 lumen_fence internal oifname { \"br-guest\", \"br-lan\" } udp sport 5351 "
            "ip6 daddr . udp dport { ff02::1 . 5350 } accept\n");
  EXPECT_EQ(grantIpv6Internal({}), "flush chain ip6 lumen_fence internal\n");
}

TEST(FenceRules, FenceNobodyWithoutServices) {
  EXPECT_EQ(makeIpv4Table({}).find("skuid"), std::string::npos);
  EXPECT_EQ(makeIpv6Table({}).find("skuid"), std::string::npos);
}

TEST(FenceRules, GrantTheNetworksOfInternalInterfaces) {
  EXPECT_EQ(
      grantInternal({{"br-guest", {{{10, 0, 0, 0}, 8}}},
                     {"br-lan", {{{192, 168, 1, 0}, 24}, {{192, 168, 88, 0}, 24}}}}),
      "flush chain ip lumen_fence internal\n"
      "add rule ip lumen_fence internal oifname { \"br-guest\", \"br-lan\" } ct state established "
      "accept\n"
      "add rule ip lumen_fence internal oifname \"br-guest\" ip daddr 10.0.0.0/8 fib daddr type "
      "unicast accept\n"
      "add rule ip lumen_fence internal oifname \"br-lan\" ip daddr 192.168.1.0/24 fib daddr type "
      "unicast accept\n"
      "add rule ip lumen_fence internal oifname \"br-lan\" ip daddr 192.168.88.0/24 fib daddr type "
      "unicast accept\n"
      "add rule ip lumen_fence internal oifname { \"br-guest\", \"br-lan\" } ip daddr . udp "
      "dport { 239.255.255.250 . 1900, 224.0.0.1 . 5350 } accept\n"
      "flush chain ip lumen_fence answers\n"
      "add rule ip lumen_fence answers oifname { \"br-guest\", \"br-lan\" } ct state established "
      "accept\n");
  EXPECT_EQ(grantInternal({}),
            "flush chain ip lumen_fence internal\nflush chain ip lumen_fence answers\n");
}

TEST(FenceRules, GrantPort53OfTheNameServers) {
  const NameServers servers = {.ipv4 = {{9, 9, 9, 9}, {127, 0, 0, 53}}, .ipv6 = {"2001:db8::1"}};
  EXPECT_EQ(grantNameServers(servers),
            "flush chain ip lumen_fence name_servers\n"
            "add rule ip lumen_fence name_servers ip daddr { 9.9.9.9, 127.0.0.53 } meta l4proto { "
            "tcp, udp } th dport 53 accept\n");
  EXPECT_EQ(grantIpv6NameServers(servers),
            "flush chain ip6 lumen_fence name_servers\n"
            "add rule ip6 lumen_fence name_servers ip6 daddr { 2001:db8::1 } meta l4proto { tcp, "
            "udp } th dport 53 accept\n");
  EXPECT_EQ(grantNameServers({}), "flush chain ip lumen_fence name_servers\n");
  EXPECT_EQ(grantIpv6NameServers({}), "flush chain ip6 lumen_fence name_servers\n");
}

TEST(FenceRules, NameOnlyInterfacesThatAreNoPatternsAndNoCommands) {
  for (const char* name : {"br-lan", "eth0.7", "ppp+1", "a{b}", "5", "wlan0_ap"}) {
    EXPECT_TRUE(canName(name)) << name;
  }
  for (const char* name : {"br*", "a\"b", "a\\b", "a b", "\xC3\xA4", "a\nb"}) {
    EXPECT_FALSE(canName(name)) << name;
  }
}

}  // namespace
}  // namespace lumen::fence
