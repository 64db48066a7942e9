#include <netinet/in.h>

#include "lumen/services/nat/NatMap.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

class NatMapTest : public ::testing::Test {
 protected:
  FakeNftables nftables;
  NatMap map{nftables};
};

// Promise: The base ruleset is read from a file; one that is missing, wrong or makes another table
// than lumend needs is refused with the reason and leaves no table.
TEST_F(NatMapTest, LoadsTheRulesetOnceNoOtherProgramHasTheTable) {
  nftables.prints("list tables ip", "table ip lumen2\ntable ip filter\n");
  nftables.prints("list table ip lumen", plainTable);
  EXPECT_EQ(whyNot(map.open("/r.nft")), "");
  EXPECT_EQ(nftables.texts, (Texts{"list tables ip", "file /r.nft", "list table ip lumen"}));
}

// Promise [one-table]: A second lumend in one network namespace is refused: `nftables table ip
// lumen exists already: another lumend runs in this network namespace, or another program made it`.
TEST_F(NatMapTest, RefusesToShareTheTable) {
  nftables.prints("list tables ip", "table ip filter\ntable ip lumen\n");
  EXPECT_EQ(whyNot(map.open("/r.nft")),
            "nftables table ip lumen exists already: another lumend runs in this network "
            "namespace, or another program made it");
  EXPECT_EQ(nftables.texts, Texts{"list tables ip"});
}

TEST_F(NatMapTest, ReportsWhyItCannotStart) {
  nftables.refuses("list tables ip", "Error: Operation not permitted\n");
  EXPECT_EQ(whyNot(map.open("/r.nft")),
            "cannot read the nftables tables: Error: Operation not permitted");
  nftables.prints("list tables ip", "");
  nftables.refuses("file /r.nft", "/r.nft:3:1-5: Error: syntax error\nmap x\n^^^\n");
  EXPECT_EQ(whyNot(map.open("/r.nft")),
            "cannot load the NAT ruleset /r.nft (it needs Linux 5.12 or later): /r.nft:3:1-5: "
            "Error: syntax error");
}

TEST_F(NatMapTest, RemovesATableThatIsNotWhatItNeeds) {
  struct Row {
    std::string part;
    std::string words;
  };
  const Row rows[] = {
      {"\tflags owner\n", "flags owner"},
      {"\tmap forwards {\n", "map forwards {"},
      {"ipv4_addr . inet_service\n",
       "type ipv4_addr . inet_proto . inet_service : ipv4_addr . "
       "inet_service"},
      {"\t\tcounter\n", "counter"},
      {" map @forwards\n", "map @forwards"},
  };
  for (const Row& row : rows) {
    std::string table = plainTable;
    table.erase(table.find(row.part), row.part.size());
    nftables.prints("list table ip lumen", table);
    EXPECT_EQ(whyNot(map.open("/r.nft")),
              "the NAT ruleset /r.nft does not make a table ip lumen with \"" + row.words + "\"");
    EXPECT_EQ(nftables.texts.back(), "delete table ip lumen");
  }
}

TEST_F(NatMapTest, NeedsAllPartsThatRemoteNetworksTake) {
  const auto hasRemotes = [&](const std::string& table) {
    nftables.prints("list table ip lumen", table);
    EXPECT_EQ(whyNot(map.open("/r.nft")), "");
    return map.hasRemotes();
  };
  EXPECT_TRUE(hasRemotes(wholeTable));
  EXPECT_FALSE(hasRemotes(plainTable));
  for (const std::string part : {"\tmap filtered {\n", ". inet_service . ipv4_addr : ",
                                 "\t\tflags interval\n", " map @filtered\n"}) {
    std::string table = wholeTable;
    table.erase(table.find(part), part.size());
    EXPECT_FALSE(hasRemotes(table)) << part;
  }
}

// Promise: What the kernel gets consists of checked numbers only, whatever a request holds.
TEST_F(NatMapTest, WritesAddressesAndPortsAsNumbers) {
  RuleKey key{.external = {.address = ip("1.2.3.255"), .port = 65535}, .protocol = IPPROTO_UDP};
  EXPECT_EQ(whyNot(map.add({.key = key, .client = {ip("10.20.30.40"), 1}})), "");
  EXPECT_EQ(nftables.texts, Texts{"add element ip lumen forwards "
                                  "{ 1.2.3.255 . udp . 65535 : 10.20.30.40 . 1 }"});
}

// Promise: How many connections used a port is known also where the kernel's protocols have no
// names, without `/etc/protocols`.
TEST_F(NatMapTest, ReadsHowOftenEachPortWasUsed) {
  const RuleKey tcp{.external = {.address = ip("45.45.45.1"), .port = 80}, .protocol = 6};
  const RuleKey udp{.external = {.address = ip("1.2.3.4"), .port = 65535}, .protocol = 17};
  using Uses = std::map<RuleKey, uint64_t>;
  EXPECT_EQ(*map.uses(), Uses{});
  nftables.counts(keyParts(tcp), UINT64_MAX);
  nftables.counts(keyParts(udp), 0);
  EXPECT_EQ(*map.uses(), (Uses{{tcp, UINT64_MAX}, {udp, 0}}));
  EXPECT_EQ(*map.uses({.key = tcp}), UINT64_MAX);
}

TEST_F(NatMapTest, SkipsElementsThatItDidNotMake) {
  const ElementPart part = {std::byte{6}};
  nftables.counts({part, part}, 1);
  nftables.counts({part, part, part, part}, 1);
  const RuleKey uncounted{.external = {.address = ip("45.45.45.1"), .port = 80}, .protocol = 6};
  nftables.counts(keyParts(uncounted), std::nullopt);
  EXPECT_EQ(map.uses()->size(), 0U);
  EXPECT_EQ(whyNot(map.uses({.key = uncounted})), "the element has no counter");
}

// Promise: Removing nothing asks the kernel for nothing.
TEST_F(NatMapTest, AsksTheKernelForNothingWhenThereIsNothingToRemove) {
  EXPECT_EQ(whyNot(map.remove({})), "");
  EXPECT_EQ(nftables.texts, Texts{});
}

}  // namespace

}  // namespace lumen::test
