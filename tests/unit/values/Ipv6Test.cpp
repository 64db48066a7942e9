#include <gtest/gtest.h>

#include <string>

#include "lumen/values/Ipv6.h"
#include "lumen/values/Ipv6NetworkList.h"

namespace lumen {
namespace {

Ipv6Address ip6(const std::string& text) { return Ipv6Address::parse(text).value(); }

TEST(Ipv6, ReadsAnySpellingAndWritesTheShortOne) {
  EXPECT_EQ(ip6("2001:0DB8:0:0:0:0:0:1").text(), "2001:db8::1");
  EXPECT_EQ(ip6("::").text(), "::");
  EXPECT_EQ(ip6("2001:db8::1").bytes()[0], 0x20);
  EXPECT_EQ(ip6("2001:db8::1").bytes()[15], 1);
}

TEST(Ipv6, RefusesWhatIsNoAddress) {
  for (const char* text : {"", "1", "45.45.45.1", "2001:db8", "2001:db8::1%br-lan",
                           "2001:db8::1/64", "2001:db8::1 ", "2001::db8::1", "12345::"}) {
    EXPECT_FALSE(Ipv6Address::parse(text)) << text;
  }
  EXPECT_FALSE(Ipv6Address::parse(std::string("2001:db8::1\0x", 13)));
}

TEST(Ipv6, KnowsWhichAddressesRoutersForwardTo) {
  for (const char* text : {"2001:db8::1", "2000::", "3fff::1", "fc00::1", "fdff::1"}) {
    EXPECT_TRUE(ip6(text).isRoutable()) << text;
  }
  for (const char* text : {"::", "::1", "::ffff:192.168.88.10", "1fff::1", "4000::1", "fbff::1",
                           "fe80::1", "fec0::1", "ff02::1", "ff0e::1"}) {
    EXPECT_FALSE(ip6(text).isRoutable()) << text;
  }
  EXPECT_TRUE(ip6("fe80::1").isLinkLocal());
  EXPECT_TRUE(ip6("febf::1").isLinkLocal());
  EXPECT_FALSE(ip6("fec0::1").isLinkLocal());
}

TEST(Ipv6, ComparesAsManyBitsAsThePrefixHas) {
  const Ipv6Network lan(ip6("2001:db8:1::5"), 64);
  EXPECT_EQ(lan.text(), "2001:db8:1::/64");
  EXPECT_TRUE(lan.holds(ip6("2001:db8:1::ffff")));
  EXPECT_FALSE(lan.holds(ip6("2001:db8:1:1::5")));
  const Ipv6Network odd(ip6("2001:db8::ffff"), 121);
  EXPECT_EQ(odd.text(), "2001:db8::ff80/121");
  EXPECT_TRUE(odd.holds(ip6("2001:db8::ff80")));
  EXPECT_FALSE(odd.holds(ip6("2001:db8::ff7f")));
  EXPECT_TRUE(Ipv6Network(ip6("::"), 0).holds(ip6("ffff::")));
  const Ipv6Network one(ip6("2001:db8::1"), 128);
  EXPECT_TRUE(one.holds(ip6("2001:db8::1")));
  EXPECT_FALSE(one.holds(ip6("2001:db8::")));
}

TEST(Ipv6, ReadsNetworks) {
  EXPECT_EQ(Ipv6Network::parse("2001:db8::5/32"), Ipv6Network(ip6("2001:db8::"), 32));
  EXPECT_EQ(Ipv6Network::parse("2001:db8::5"), Ipv6Network(ip6("2001:db8::5"), 128));
  EXPECT_EQ(Ipv6Network::parse("::/0"), Ipv6Network());
  for (const char* text : {"", "/64", "2001:db8::/", "2001:db8::/129", "2001:db8::/-1",
                           "2001:db8::/6 4", "2001:db8::/64x", "10.0.0.0/8"}) {
    EXPECT_FALSE(Ipv6Network::parse(text)) << text;
  }
}

TEST(Ipv6, KnowsTheLastAddressOfANetwork) {
  EXPECT_EQ(Ipv6Network(ip6("2001:db8::"), 32).last().text(),
            "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff");
  EXPECT_EQ(Ipv6Network(ip6("2001:db8::80"), 121).last().text(), "2001:db8::ff");
  EXPECT_EQ(Ipv6Network(ip6("2001:db8::1"), 128).last().text(), "2001:db8::1");
  EXPECT_EQ(Ipv6Network().last().text(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(Ipv6, ReadsAListOfNetworksWithoutThoseThatAnotherHolds) {
  const auto text = [](std::string_view list) {
    const auto networks = parseIpv6Networks(list);
    return networks ? networksText(*networks) : "none";
  };
  EXPECT_EQ(text(""), "");
  EXPECT_EQ(text("2001:db9::1 2001:db8:1::/48 2001:db8::/32"), "2001:db8::/32 2001:db9::1/128");
  for (const char* list : {" ", "2001:db8::1 ", " 2001:db8::1", "2001:db8::1  2001:db8::2",
                           "2001:db8::1,2001:db8::2", "10.0.0.0/8"}) {
    EXPECT_EQ(text(list), "none") << list;
  }
}

}  // namespace
}  // namespace lumen
