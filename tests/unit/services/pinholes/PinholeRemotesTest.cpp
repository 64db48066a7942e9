// Pinholes that only some remote networks may use.

#include "services/pinholes/PinholesFixture.h"

namespace lumen::test {

// Promise [pinhole-remotes]: A pinhole for some remote networks is an element for each of them;
// they are listed, can be replaced with the lease, and flows from elsewhere end then.
TEST_F(PinholesTest, AreForTheirRemoteNetworksAlone) {
  const std::string filtered = " element ip6 lumen filtered { 2001:db8:1::10 . udp . 8080 . ";
  const std::string office = "2001:db8:a::-2001:db8:a:ffff:ffff:ffff:ffff:ffff";
  const std::string home = "2001:db8:b::1-2001:db8:b::1";
  const uint32_t id =
      opens({.protocol = 17, .remotes = "2001:db8:b::1 2001:db8:a::/48 2001:db8:a:b::/64"});
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"add" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home + " }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:a::/48 2001:db8:b::1/128");
  passes(500s);
  EXPECT_EQ(renews(pcp, id, 600), "");
  EXPECT_EQ(kernel.takeTexts(), Texts{}) << "they stay";
  flows.flows = {flowTo("2001:db8:1::10", 8080, "2001:db8:a::1"),
                 flowTo("2001:db8:1::10", 8080, "2001:db8:b::1")};

  EXPECT_EQ(renews(pcp, id, 700, "2001:db8:b::1"), "");
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home +
                  " }add" + filtered + home + " }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:b::1/128");
  EXPECT_EQ(lists().at(0).pinhole.lease, 700U);
  sweepRuns();
  EXPECT_EQ(flows.flows, std::vector{flowTo("2001:db8:1::10", 8080, "2001:db8:b::1")});
  givesUp();
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:a::/48 2001:db8:b::1/128");
  EXPECT_EQ(lists().at(0).pinhole.lease, 600U);
  kernel.takeTexts();

  EXPECT_EQ(renews(pcp, id, 600, ""), "");
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home +
                  " }add element ip6 lumen pinholes { 2001:db8:1::10 . udp . 8080 }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "");
}

// Promise: All pinholes together have at most 1,024 remote networks, since each change costs more
// with more of them.
TEST_F(PinholesTest, HaveNoMoreRemoteNetworksThanTheKernelChangesFast) {
  const std::string eight = "1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16 8::/16";
  const std::string why = "4: all pinholes together have at most 1024 remote networks";
  uint32_t id = 0;
  const std::string another = "2001:db8:1::11";
  for (uint32_t port = 10000; port < 10128; ++port) id = opens({.port = port, .remotes = eight});
  EXPECT_EQ(refused({.host = another, .remotes = "1::/16"}), why);
  opens({.host = another, .port = 9000});
  EXPECT_EQ(renews(pcp, id, 600, eight), "");
  EXPECT_EQ(renews(pcp, id, 600, "1::/16"), "");
  const uint32_t seven =
      opens({.host = another, .remotes = "1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16"});
  EXPECT_EQ(renews(pcp, id, 600, "1::/16 2::/16"), why);
  EXPECT_EQ(removes(pcp, seven), "");
  EXPECT_EQ(renews(pcp, id, 600, eight), "");
  EXPECT_EQ(refused({.host = another, .remotes = "1::/16"}), why);
}

TEST_F(PinholesTest, WithAndWithoutRemoteNetworksEndInOneTransaction) {
  opens({});
  opens({.port = 8081, .remotes = "2001:db8:b::1"});
  kernel.takeTexts();
  pinholes.connectionEnded(pcp.connection);
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }"
                  "delete element ip6 lumen filtered { 2001:db8:1::10 . tcp . 8081 . "
                  "2001:db8:b::1-2001:db8:b::1 }"});
}

TEST_F(PinholesTest, RefuseWhatAreNoRemoteNetworks) {
  const uint32_t id = opens({});
  kernel.takeTexts();
  struct Row {
    const char* remotes;
    const char* why;
  };
  for (const Row& row :
       {Row{"198.51.100.0/24", "1: the remote networks must be IPv6 networks with spaces between"},
        Row{"2001:db8::1,2001:db8::2",
            "1: the remote networks must be IPv6 networks with spaces between"},
        Row{"2001:db8::1 ::/0", "1: the prefix of a remote network must be from 1 to 128"},
        Row{"1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16 8::/16 9::/16",
            "1: a pinhole has at most 8 remote networks"}}) {
    EXPECT_EQ(refused({.port = 8081, .remotes = row.remotes}), row.why);
    EXPECT_EQ(renews(pcp, id, 600, row.remotes), row.why);
  }
  EXPECT_EQ(kernel.takeTexts(), Texts{});
}

// Promise: With a pinhole-ruleset.nft that has no set `filtered`, a pinhole for some remote hosts
// is refused, and others are opened.
TEST_F(PinholesTest, AreForAnyRemoteHostWithAnOlderRuleset) {
  const auto possible = [this] {
    return asks(admin, lm::cmd::get, {}).get_bool(lm::pinholes::key::remotesPossible);
  };
  EXPECT_TRUE(possible());
  std::string older = installedTable;
  older.replace(older.find("filtered"), 8, "fenced");
  kernel.prints("list table ip6 lumen", older);
  pinholes.begin(directory.file("rules.nft"));
  EXPECT_FALSE(possible());
  const std::string why =
      "7: the pinhole ruleset file has no set \"filtered\" for pinholes that name remote networks";
  EXPECT_EQ(refused({.remotes = "2001:db8:b::1"}), why);
  const uint32_t id = opens({});
  EXPECT_EQ(renews(pcp, id, 600, "2001:db8:b::1"), why);
  EXPECT_EQ(renews(pcp, id, 600, ""), "");
}

TEST_F(PinholesTest, KeepTheirRemoteNetworksWhenTheKernelRefusesOthers) {
  const lm::test::LogCapture log;
  const uint32_t id = opens({});
  kernel.refuses(std::string(deletes) +
                     "add element ip6 lumen filtered { 2001:db8:1::10 . tcp . 8080 . "
                     "2001:db8:b::1-2001:db8:b::1 }",
                 "No space left on device");
  passes(100s);
  EXPECT_EQ(renews(pcp, id, 600, "2001:db8:b::1"),
            "1: the kernel refused it: No space left on device");
  EXPECT_EQ(lists().at(0).pinhole.remotes, "");
  EXPECT_EQ(lists().at(0).pinhole.lease, 500U);
}

}  // namespace lumen::test
