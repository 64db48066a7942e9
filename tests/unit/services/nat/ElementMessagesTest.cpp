#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "lumen/services/system/netfilter/ElementMessages.h"
#include "support/WhyNot.h"

namespace lumen::test {

namespace {

/// Messages from the kernel, in the order of bytes of this machine.
class Datagram {
 public:
  Datagram& message(uint16_t type, uint16_t flags = 0) {
    close();
    message_ = bytes_.size();
    number32(0);
    number16(type);
    number16(flags);
    number32(0);
    number32(0);
    return *this;
  }
  /// linux/netfilter/nfnetlink.h: family, version, resource.
  Datagram& elements(uint16_t flags = 0, uint16_t generation = 0) {
    message(10 << 8 | 12, flags);  // nf_tables, NFT_MSG_NEWSETELEM
    number16(0);
    number16(generation);
    return *this;
  }
  Datagram& begin(uint16_t type) {
    nests_.push_back(bytes_.size());
    number16(0);
    number16(type);
    return *this;
  }
  Datagram& end() {
    setLength16(nests_.back(), bytes_.size() - nests_.back());
    nests_.pop_back();
    return *this;
  }
  Datagram& attribute(uint16_t type, const std::string& content) {
    begin(type);
    bytes_ += content;
    end();
    bytes_.resize((bytes_.size() + 3) / 4 * 4);
    return *this;
  }
  Datagram& number32(uint32_t number) {
    bytes_.append(reinterpret_cast<const char*>(&number), sizeof number);
    return *this;
  }
  Datagram& lengthAt(size_t at, uint16_t length) {
    setLength16(at, length);
    return *this;
  }

  [[nodiscard]] std::string bytes() {
    close();
    return bytes_;
  }

 private:
  void number16(uint16_t number) {
    bytes_.append(reinterpret_cast<const char*>(&number), sizeof number);
  }
  void setLength16(size_t at, size_t length) {
    const auto number = static_cast<uint16_t>(length);
    std::memcpy(bytes_.data() + at, &number, sizeof number);
  }
  void close() {
    if (bytes_.empty()) return;
    const auto length = static_cast<uint32_t>(bytes_.size() - message_);
    std::memcpy(bytes_.data() + message_, &length, sizeof length);
  }

  std::string bytes_;
  size_t message_ = 0;
  std::vector<size_t> nests_;
};

// linux/netfilter/nf_tables.h
constexpr uint16_t elementList = 3;  // NFTA_SET_ELEM_LIST_ELEMENTS
constexpr uint16_t one = 1;          // NFTA_LIST_ELEM
constexpr uint16_t elementKey = 1;   // NFTA_SET_ELEM_KEY
constexpr uint16_t elementData = 2;  // NFTA_SET_ELEM_DATA
constexpr uint16_t expression = 7;   // NFTA_SET_ELEM_EXPR
constexpr uint16_t keyEnd = 10;      // NFTA_SET_ELEM_KEY_END
constexpr uint16_t value = 1;        // NFTA_DATA_VALUE
constexpr uint16_t name = 1;         // NFTA_EXPR_NAME
constexpr uint16_t content = 2;      // NFTA_EXPR_DATA

const std::string tenAddress("\x0a\x00\x00\x01", 4);
const std::string seven("\0\0\0\0\0\0\0\7", 8);

Datagram elementWith(const std::string& key) {
  Datagram datagram;
  datagram.elements().begin(elementList).begin(one).begin(elementKey);
  datagram.attribute(value, key).end();
  return datagram;
}

Datagram counterOf(const std::string& kind, const std::string& bytes, const std::string& packets) {
  Datagram datagram = elementWith(tenAddress);
  datagram.begin(expression).attribute(name, kind).begin(content);
  datagram.attribute(1, bytes).attribute(2, packets).end().end().end().end();
  return datagram;
}

struct Reading {
  ElementAnswers answers;
  std::vector<SetElement> elements;
};

Reading read(const std::string& bytes) {
  // As long as the bytes, so that a sanitizer sees each read behind them.
  std::vector<nlmsghdr> buffer((bytes.size() + sizeof(nlmsghdr) - 1) / sizeof(nlmsghdr));
  std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(buffer.data()));
  Reading reading;
  reading.answers.read(buffer.data(), bytes.size(),
                       [&](const SetElement& element) { reading.elements.push_back(element); });
  return reading;
}

ElementPart part(int a, int b = 0, int c = 0, int d = 0) {
  return {std::byte(a), std::byte(b), std::byte(c), std::byte(d)};
}

TEST(ElementMessagesTest, ReadKeysDataAndCounters) {
  Datagram datagram = elementWith(tenAddress + std::string("\x11\0\0\0", 4));
  datagram.begin(keyEnd).attribute(value, tenAddress).end();
  datagram.begin(elementData).attribute(value, "\xc0\xa8\x58\x0a").end();
  datagram.begin(expression).attribute(name, std::string("counter", 8)).begin(content);
  datagram.attribute(1, std::string("\0\0\0\0\0\0\3\x84", 8)).attribute(2, seven);
  datagram.end().end().end();
  datagram.begin(one).begin(elementKey).attribute(value, tenAddress).end().end().end();
  const Reading reading = read(datagram.bytes());
  EXPECT_EQ(whyNot(reading.answers.result(0)), "");
  EXPECT_EQ(reading.elements,
            (std::vector<SetElement>{{.key = {part(10, 0, 0, 1), part(17)},
                                      .keyEnd = {part(10, 0, 0, 1)},
                                      .data = {part(192, 168, 88, 10)},
                                      .counter = ElementCounter{.packets = 7, .bytes = 900}},
                                     {.key = {part(10, 0, 0, 1)}}}));
}

TEST(ElementMessagesTest, ReadAcknowledgementsEndsAndErrors) {
  const std::string two = Datagram().message(2).number32(0).message(3).number32(0).bytes();
  EXPECT_EQ(whyNot(read(two).answers.result(2)), "");
  EXPECT_EQ(whyNot(read(two).answers.result(3)), "the kernel does not answer");
  EXPECT_FALSE(read(two).answers.interrupted());

  const auto refused = Datagram()
                           .message(2)
                           .number32(static_cast<uint32_t>(-EEXIST))
                           .message(2)
                           .number32(static_cast<uint32_t>(-ENOENT))
                           .bytes();
  EXPECT_EQ(whyNot(read(refused).answers.result(0)), "File exists") << "the first one";

  const uint16_t interrupted = 0x10;  // NLM_F_DUMP_INTR
  EXPECT_TRUE(read(Datagram().elements(interrupted).bytes()).answers.interrupted());
  EXPECT_FALSE(read(Datagram().elements(0, 5).elements(0, 5).bytes()).answers.interrupted());
  EXPECT_TRUE(read(Datagram().elements(0, 5).elements(0, 6).bytes()).answers.interrupted())
      << "another generation of the tables";
  EXPECT_TRUE(read(Datagram().message(3, interrupted).number32(0).bytes()).answers.interrupted());
}

TEST(ElementMessagesTest, RefuseWhatIsMalformed) {
  const std::string counter("counter", 8);
  const struct Row {
    const char* why;
    std::string bytes;
  } rows[] = {
      {"half a header", std::string(8, '\0')},
      {"a message longer than its datagram", Datagram().elements().bytes().substr(0, 18)},
      {"a message shorter than its header", std::string(20, '\0')},
      {"bytes after a message", Datagram().elements().bytes() + "abcd"},
      {"no family", Datagram().message(10 << 8 | 12).bytes()},
      {"an acknowledgement without a number", Datagram().message(2).bytes()},
      {"an end without a number", Datagram().message(3).bytes()},
      {"no key", Datagram().elements().begin(elementList).begin(one).end().end().bytes()},
      {"an empty key", elementWith("").end().end().bytes()},
      {"a key of half a part", elementWith("ab").end().end().bytes()},
      {"a key of one part and a half", elementWith(tenAddress + "ab").end().end().bytes()},
      {"a key longer than any", elementWith(std::string(68, 'x')).end().end().bytes()},
      {"an element longer than the list",
       elementWith(tenAddress).end().end().lengthAt(24, 40).bytes()},
      {"an element shorter than its header",
       elementWith(tenAddress).end().end().lengthAt(24, 3).bytes()},
      {"a key longer than its element",
       elementWith(tenAddress).end().end().lengthAt(28, 60).bytes()},
      {"a value longer than its key", elementWith(tenAddress).end().end().lengthAt(32, 60).bytes()},
      {"a counter without a name", counterOf("", seven, seven).bytes()},
      {"a name without an end", counterOf("counter!", seven, seven).bytes()},
      {"packets of four bytes", counterOf(counter, seven, "abcd").bytes()},
      {"bytes of sixteen bytes", counterOf(counter, seven + seven, seven).bytes()},
  };
  for (const Row& row : rows) {
    const Reading reading = read(row.bytes);
    EXPECT_EQ(whyNot(reading.answers.result(0)), "Bad message") << row.why;
    EXPECT_EQ(reading.elements.size(), 0U) << row.why;
  }
}

TEST(ElementMessagesTest, SkipWhatElementsOfOtherKindsHave) {
  const Reading reading = read(counterOf(std::string("quota", 6), seven, seven).bytes());
  EXPECT_EQ(whyNot(reading.answers.result(0)), "");
  EXPECT_EQ(reading.elements, (std::vector<SetElement>{{.key = {part(10, 0, 0, 1)}}}));
  EXPECT_EQ(whyNot(read(Datagram().message(10 << 8 | 9).bytes()).answers.result(0)), "");
  EXPECT_EQ(whyNot(read("").answers.result(0)), "");
}

TEST(ElementMessagesTest, SendNothingThatTheKernelCannotTake) {
  const std::string longName(256, 'x');
  const ElementSet good{.family = TableFamily::ip, .table = "lumen", .name = "forwards"};
  const ElementParts longKey(17);
  EXPECT_TRUE(ElementRequest(good).fits());
  EXPECT_TRUE(ElementRequest(good, ElementParts(16)).fits());
  EXPECT_FALSE(ElementRequest(good, longKey).fits());
  EXPECT_FALSE(ElementRequest({TableFamily::ip, longName.c_str(), "forwards"}).fits());
  EXPECT_FALSE(ElementRequest({TableFamily::ip, "lumen", longName.c_str()}).fits());
  for (const SetElement& element :
       {SetElement{.key = longKey}, SetElement{.key = {part(1)}, .keyEnd = longKey},
        SetElement{.key = {part(1)}, .data = longKey}}) {
    const ElementChange change = {ElementAction::add, good, {&element, 1}};
    EXPECT_FALSE(ElementRequest({&change, 1}).fits());
  }
}

TEST(ElementMessagesTest, SendAHundredElementsInEachMessage) {
  const std::string table(255, 't');
  const ElementSet longest{
      .family = TableFamily::ip6, .table = table.c_str(), .name = table.c_str()};
  const std::vector<SetElement> elements(201, {.key = ElementParts(16),
                                               .keyEnd = ElementParts(16),
                                               .data = ElementParts(16),
                                               .counter = ElementCounter{}});
  const ElementChange change = {ElementAction::add, longest, elements};
  const ElementRequest request({&change, 1});
  EXPECT_EQ(request.answers(), 3U);
  EXPECT_TRUE(request.fits());
}

}  // namespace

}  // namespace lumen::test
