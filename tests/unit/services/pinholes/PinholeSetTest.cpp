#include <gtest/gtest.h>

#include <string>

#include "lumen/services/pinholes/PinholeSet.h"
#include "services/pinholes/FakeSet.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen::test {
namespace {

using Texts = std::vector<std::string>;

Pinhole pinholeTo(const std::string& host, uint8_t protocol, uint16_t port) {
  return {.key = {.host = Ipv6Address::parse(host).value(), .protocol = protocol, .port = port}};
}

class PinholeSetTest : public testing::Test {
 protected:
  PinholeSetTest() {
    directory.write("rules.nft", "");
    nftables.prints("list table ip6 lumen", installedTable);
  }

  lm::test::TempDir directory;
  std::string file = directory.file("rules.nft");
  FakeSet nftables;
  PinholeSet set{nftables};
};

TEST_F(PinholeSetTest, LoadsTheRulesetFile) {
  EXPECT_EQ(whyNot(set.open(file)), "");
  EXPECT_EQ(nftables.takeTexts(),
            (Texts{"list tables ip6", "file " + file, "list table ip6 lumen"}));
}

// Promise: A pinhole-ruleset.nft without the set `filtered` makes pinholes for any remote host.
TEST_F(PinholeSetTest, KnowsWhetherTheRulesetCanFilter) {
  EXPECT_FALSE(set.hasRemotes());
  EXPECT_EQ(whyNot(set.open(file)), "");
  EXPECT_TRUE(set.hasRemotes());
  for (const std::string part :
       {"set filtered {", "inet_service . ipv6_addr", "flags interval", "@filtered ct label set"}) {
    std::string table = installedTable;
    table.replace(table.find(part), part.size(), "else");
    nftables.prints("list table ip6 lumen", table);
    EXPECT_EQ(whyNot(set.open(file)), "");
    EXPECT_FALSE(set.hasRemotes()) << part;
  }
}

TEST_F(PinholeSetTest, ReadsTheLabelOfTheRuleset) {
  EXPECT_EQ(set.label(), std::nullopt);
  const auto labelOf = [this](const std::string& word) {
    std::string table = installedTable;
    table.replace(table.find("125"), 3, word);
    nftables.prints("list table ip6 lumen", table);
    EXPECT_EQ(whyNot(set.open(file)), "");
    return set.label();
  };
  EXPECT_EQ(labelOf("125"), 125U);
  EXPECT_EQ(labelOf("0"), 0U);
  EXPECT_EQ(labelOf("128"), std::nullopt) << "there are 128 labels";
  EXPECT_EQ(labelOf("pinhole"), std::nullopt) << "a name of connlabel.conf";
  EXPECT_EQ(labelOf("12a"), std::nullopt);
}

TEST_F(PinholeSetTest, TouchesNothingWithoutTheFile) {
  EXPECT_EQ(whyNot(set.open("/nowhere/rules.nft")),
            "/nowhere/rules.nft: No such file or directory");
  EXPECT_EQ(nftables.takeTexts(), Texts{});
}

TEST_F(PinholeSetTest, LeavesATableOfAnotherProgramAlone) {
  nftables.prints("list tables ip6", "table ip6 filter\ntable ip6 lumen\n");
  EXPECT_EQ(whyNot(set.open(file)),
            "nftables table ip6 lumen exists already: another program made it");
  EXPECT_EQ(nftables.takeTexts(), Texts{"list tables ip6"});
}

TEST_F(PinholeSetTest, RefusesARulesetThatDoesNotMarkConnections) {
  for (const std::string part :
       {"flags owner", "set pinholes {", "type ipv6_addr . inet_proto . inet_service",
        "@pinholes ct label set"}) {
    std::string table = installedTable;
    table.replace(table.find(part), part.size(), "else");
    nftables.prints("list table ip6 lumen", table);
    nftables.takeTexts();
    EXPECT_EQ(whyNot(set.open(file)), "the pinhole ruleset " + file +
                                          " does not make a table ip6 lumen with \"" + part + "\"");
    EXPECT_EQ(nftables.takeTexts().back(), "delete table ip6 lumen");
  }
}

TEST_F(PinholeSetTest, SaysWhyTheRulesetCannotBeLoaded) {
  nftables.refuses("file " + file, "rules.nft:3:1-2: Error: syntax error\nmore\n");
  EXPECT_EQ(whyNot(set.open(file)),
            "cannot load the pinhole ruleset " + file + ": rules.nft:3:1-2: Error: syntax error");
}

// Promise: A pinhole is one element of a set in the kernel: opening and closing one costs the same
// however many there are.
TEST_F(PinholeSetTest, ChangesOneElementForEachPinhole) {
  EXPECT_EQ(whyNot(set.add(pinholeTo("2001:db8:1::10", 6, 8080))), "");
  EXPECT_EQ(
      whyNot(set.remove({pinholeTo("2001:db8:1::10", 6, 8080), pinholeTo("fd00::ff", 17, 53)})),
      "");
  EXPECT_EQ(whyNot(set.remove({})), "");
  EXPECT_EQ(nftables.takeTexts(),
            (Texts{"add element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }",
                   "delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080, "
                   "fd00::ff . udp . 53 }"}));
}

}  // namespace
}  // namespace lumen::test
