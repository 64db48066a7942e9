#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "services/nat/NatKernelFixture.h"

namespace lumen::test {

namespace {

/// Sets and maps of any table, by messages.
class SetElementsTest : public NatKernelTest {
 protected:
  void makes(const std::string& description) {
    const auto made = nftables->run("add table ip6 t; add set ip6 t s { " + description + " }");
    ASSERT_EQ(whyNot(made), "");
  }
  void changes(ElementAction action, const std::vector<SetElement>& elements) {
    const ElementChange change = {action, set, elements};
    ASSERT_EQ(whyNot(nftables->changeElements({&change, 1})), "");
  }
  /// Makes a set with so many elements, of two parts.
  void fills(int count) {
    makes("type ipv6_addr . mark; counter;");
    // Only root of the machine may send more at once.
    constexpr int most = 1000;
    for (int i = 0; i < count;) {
      std::vector<SetElement> elements;
      for (const int end = std::min(i + most, count); i < end; ++i) {
        elements.push_back({.key = numbered(i)});
      }
      changes(ElementAction::add, elements);
    }
  }
  static ElementParts numbered(int number) {
    return {{}, {}, {}, {}, {std::byte(number >> 8), std::byte(number & 0xff)}};
  }

  static constexpr ElementSet set{.family = TableFamily::ip6, .table = "t", .name = "s"};
  static constexpr ElementPart part{std::byte(0x20), std::byte(0x01), std::byte(0x0d)};
};

TEST_F(SetElementsTest, OfIpv6KeepTheirCounters) {
  makes("type ipv6_addr . inet_proto . inet_service; counter;");
  const SetElement element = {
      .key = {part, {}, {}, part, {std::byte(17)}, {std::byte(4)}},
      .counter = ElementCounter{.packets = 1ULL << 40, .bytes = 1ULL << 50}};
  changes(ElementAction::add, {element});
  EXPECT_NE(seenByAnotherProgram("list set ip6 t s")
                .find("2001:d00::2001:d00 . " + listed(17) +
                      " . 1024 counter packets 1099511627776 bytes 1125899906842624"),
            std::string::npos);
  EXPECT_EQ(*nftables->readElement(set, element.key), element);
  changes(ElementAction::remove, {element});
  EXPECT_EQ(whyNot(nftables->readElement(set, element.key)), "No such file or directory");
}

TEST_F(SetElementsTest, OfIntervalsAreReplacedInOneTransaction) {
  makes("type inet_service . mark; flags interval; counter;");
  const SetElement interval = {.key = {{std::byte(1)}, {std::byte(2)}},
                               .keyEnd = {{std::byte(1), std::byte(255)}, {std::byte(2)}},
                               .counter = ElementCounter{.packets = 7, .bytes = 900}};
  changes(ElementAction::add, {interval});
  const ElementParts within = {{std::byte(1), std::byte(9)}, {std::byte(2)}};
  EXPECT_EQ(nftables->readElement(set, within)->counter, interval.counter);
  SetElement other = interval;
  other.counter->packets = 8;
  const ElementChange both[] = {{ElementAction::remove, set, {&interval, 1}},
                                {ElementAction::add, set, {&other, 1}}};
  EXPECT_EQ(whyNot(nftables->changeElements(both)), "");
  std::vector<SetElement> seen;
  EXPECT_EQ(whyNot(nftables->readElements(
                set, [&](const SetElement& element) { seen.push_back(element); })),
            "");
  EXPECT_EQ(seen, std::vector{other});
}

TEST_F(SetElementsTest, AreReadHoweverManyThereAre) {
  fills(10000);
  std::set<ElementParts> seen;
  EXPECT_EQ(whyNot(nftables->readElements(
                set, [&](const SetElement& element) { seen.insert(element.key); })),
            "");
  EXPECT_EQ(seen.size(), 10000U);
}

TEST_F(SetElementsTest, AreReadAgainWhenAnotherProgramMadeAChange) {
  fills(2000);
  LibNftables other;
  int begins =
      0;  // of dumps; more when the kernel's hash table grows meanwhile and tells some twice
  const auto readWhile = [&](int interruptions) {
    begins = 0;
    std::set<ElementParts> seen;
    std::optional<ElementParts> first;
    const auto result = nftables->readElements(set, [&](const SetElement& element) {
      if (!first) first = element.key;
      if (element.key == *first && ++begins <= interruptions) {
        EXPECT_TRUE(other.run("add table ip other; delete table ip other").ok());
      }
      seen.insert(element.key);
    });
    return std::to_string(seen.size()) + " " + whyNot(result);
  };
  EXPECT_EQ(readWhile(1), "2000 ");
  EXPECT_GE(begins, 2);
  EXPECT_EQ(readWhile(7), "2000 ");
  EXPECT_GE(begins, 8);
  EXPECT_EQ(readWhile(100), "2000 Interrupted system call");
  EXPECT_GE(begins, 8);
}

TEST_F(SetElementsTest, LeaveNoAnswerBehindAfterAnError) {
  fills(2000);
  std::vector<SetElement> absent;
  for (int i = 3000; i < 5000; ++i) absent.push_back({.key = numbered(i)});
  const ElementChange change = {ElementAction::remove, set, absent};
  EXPECT_NE(whyNot(nftables->changeElements({&change, 1})), "");
  EXPECT_EQ(whyNot(nftables->readElement({TableFamily::ip6, "t", "none"}, numbered(1))),
            "No such file or directory");
  EXPECT_EQ(
      whyNot(nftables->readElements({TableFamily::ip6, "none", "s"}, [](const SetElement&) {})),
      "No such file or directory");
  EXPECT_EQ(nftables->readElement(set, numbered(1))->counter, ElementCounter{});
  EXPECT_TRUE(nftables->run("list tables").ok());
}

}  // namespace

}  // namespace lumen::test
