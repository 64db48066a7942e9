#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <random>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "support/Describe.h"

namespace lm {
namespace {

using test::describe;

/// Bytes from hexadecimal text; blanks are for the reader.
std::string bytes(std::string_view hex) {
  std::string digits;
  for (char c : hex) {
    if (c != ' ') digits.push_back(c);
  }
  std::string result;
  for (size_t i = 0; i < digits.size(); i += 2) {
    result.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return result;
}

std::string decodedText(std::string_view datagram) {
  const auto m = decode(datagram);
  return m ? describe(*m) : "refused: " + m.why();
}

message nested(int depth) {
  message m;
  m.insert_u32(1, 1);
  for (int i = 0; i < depth; ++i) {
    message outer;
    outer.insert_message(2, m);
    m = outer;
  }
  return m;
}

struct WireForm {
  const char* name;
  const char* hex;
  const char* text;

  friend void PrintTo(const WireForm& row, std::ostream* out) { *out << row.hex; }
};

class EveryType : public testing::TestWithParam<WireForm> {};

// Promise [msg-bool]: A bool is one byte, `0` or `1`, after its four-byte key.
// Promise [msg-numbers]: A u32 is four bytes and a u64 eight, big-endian on every machine.
// Promise [msg-string]: A string is its length as a u32 and its bytes; it may be empty.
// Promise [msg-nested]: A message in a message is the length of its encoded fields as a u32 and
// these fields; it may be empty.
// Promise [msg-array]: An array is the number of its elements as a u32 and each element in the form
// of its type; it may be empty.
// Promise [msg-form]: A message is its fields one after the other, in the order in which they were
// inserted, with nothing before, between or after them.
TEST_P(EveryType, HasItsWireForm) {
  const std::string datagram = bytes(GetParam().hex);
  EXPECT_EQ(decodedText(datagram), GetParam().text);
  const auto m = decode(datagram);
  ASSERT_TRUE(m);
  EXPECT_EQ(encode(*m), datagram);
}

INSTANTIATE_TEST_SUITE_P(
    Codec, EveryType,
    testing::Values(
        WireForm{"True", "00fe000a 01", "{bool 0xfe000a=1}"},
        WireForm{"False", "00fe000a 00", "{bool 0xfe000a=0}"},
        WireForm{"U32", "08000001 01020304", "{u32 0x1=16909060}"},
        WireForm{"U64", "100100fc 0000000100000002", "{u64 0x100fc=4294967298}"},
        WireForm{"String", "20000027 00000006 647374 6e6174", "{string 0x27=\"dstnat\"}"},
        WireForm{"EmptyString", "20000027 00000000", "{string 0x27=\"\"}"},
        WireForm{"Message", "28000002 00000005 00000001 01", "{message 0x2={bool 0x1=1}}"},
        WireForm{"EmptyMessage", "28000002 00000000", "{message 0x2={}}"},
        WireForm{"BoolArray", "80000001 00000003 01 00 01", "{bool[] 0x1=[1 0 1]}"},
        WireForm{"U32Array", "88ff0001 00000002 00000014 00000005", "{u32[] 0xff0001=[20 5]}"},
        WireForm{"EmptyU32Array", "88ff0001 00000000", "{u32[] 0xff0001=[]}"},
        WireForm{"U64Array", "90000001 00000001 0000000000000007", "{u64[] 0x1=[7]}"},
        WireForm{"StringArray", "a0000001 00000002 00000001 61 00000000",
                 "{string[] 0x1=[\"a\" \"\"]}"},
        WireForm{"MessageArray", "a8fe0002 00000002 00000008 08000001 00000007 00000000",
                 "{message[] 0xfe0002=[{u32 0x1=7} {}]}"},
        WireForm{"SeveralFields", "08000002 00000001 08000001 00000002", "{u32 0x2=1, u32 0x1=2}"}),
    [](const auto& row) { return row.param.name; });

// Promise [msg-address]: An IPv4 address is a u32 field whose four bytes are the address in network
// order; in memory it is what `inet_addr` gives.
TEST(Codec, WritesAddressesInNetworkOrder) {
  message m;
  m.insert_be32(0x34, inet_addr("192.168.88.10"));
  EXPECT_EQ(encode(m), bytes("08000034 c0a8580a"));
}

struct Reject {
  const char* name;
  const char* hex;
  const char* reason;

  friend void PrintTo(const Reject& row, std::ostream* out) { *out << row.hex; }
};

class Invalid : public testing::TestWithParam<Reject> {};

// Promise: An empty datagram is no message: `empty`.
// Promise: A key that is cut off, or has no value after it, is no message: `truncated`.
// Promise: A number that is cut off is no message: `truncated`.
// Promise: A string whose length goes beyond the datagram is refused before memory is allocated for
// it: `truncated`.
// Promise: An array whose count goes beyond the datagram is refused before memory is allocated for
// it: `truncated`.
// Promise: A message in a message that is cut off, or whose value goes beyond its end, is refused:
// `truncated`.
// Promise: Bytes after the last field make the datagram no message: `truncated`.
// Promise [msg-bool-value]: A bool of another value than 0 and 1 makes the datagram no message, in
// an array too: `bool neither 0 nor 1`.
// Promise [msg-twice]: A key that comes twice makes the datagram no message, at any depth: `key
// twice: 0x08000001`.
// Promise [msg-type]: An unknown type makes the datagram no message: `unknown type: 0x18000001`.
TEST_P(Invalid, IsRefusedWithItsReason) {
  EXPECT_EQ(decodedText(bytes(GetParam().hex)), std::string("refused: ") + GetParam().reason);
  // The next valid one works.
  EXPECT_EQ(decodedText(bytes("08000001 00000007")), "{u32 0x1=7}");
}

INSTANTIATE_TEST_SUITE_P(
    Codec, Invalid,
    testing::Values(Reject{"EmptyDatagram", "", "empty"}, Reject{"CutKey", "080000", "truncated"},
                    Reject{"KeyWithoutValue", "08000001", "truncated"},
                    Reject{"CutU32", "08000001 000000", "truncated"},
                    Reject{"CutU64", "10000001 00000000 000000", "truncated"},
                    Reject{"BoolWithoutValue", "00000001", "truncated"},
                    Reject{"StringLongerThanTheDatagram", "20000001 00000002 61", "truncated"},
                    Reject{"StringOfFourGigabytes", "20000001 ffffffff 61", "truncated"},
                    Reject{"ArrayOfFourBillion", "88000001 ffffffff 00000001", "truncated"},
                    Reject{"MessageArrayOfABillion", "a8000001 3fffffff 00000000", "truncated"},
                    Reject{"CutArray", "88000001 00000002 00000001", "truncated"},
                    Reject{"CutNestedMessage", "28000001 00000004 08000001", "truncated"},
                    Reject{"NestedValueThatLeavesItsMessage",
                           "28000001 00000005 08000001 00 000007", "truncated"},
                    Reject{"TrailingByte", "08000001 00000007 00", "truncated"},
                    Reject{"BoolTwo", "00000001 02", "bool neither 0 nor 1"},
                    Reject{"BoolTwoInAnArray", "80000001 00000002 01 02", "bool neither 0 nor 1"},
                    Reject{"KeyTwice", "08000001 00000007 00000001 01 08000001 00000007",
                           "key twice: 0x08000001"},
                    Reject{"NestedKeyTwice", "28000001 0000000a 00000005 01 00000005 01",
                           "key twice: 0x00000005"},
                    Reject{"TypeThree", "18000001 00000007", "unknown type: 0x18000001"},
                    Reject{"TypeSix", "30000001 00000007", "unknown type: 0x30000001"},
                    Reject{"TypeFifteen", "78000001 00000007", "unknown type: 0x78000001"},
                    Reject{"ArrayOfTypeThree", "98000001 00000000", "unknown type: 0x98000001"},
                    Reject{"ArrayOfTypeFifteen", "f8000001 00000000", "unknown type: 0xf8000001"}),
    [](const auto& row) { return row.param.name; });

// Promise [msg-depth]: Messages nest up to eight deep, arrays of messages counted; a ninth level
// makes the datagram no message: `nested too deep`.
TEST(Codec, TakesEightLevelsOfNestingAndRefusesTheNinth) {
  EXPECT_EQ(decodedText(encode(nested(8))), describe(nested(8)));
  EXPECT_EQ(decodedText(encode(nested(9))), "refused: nested too deep");
}

// Also proves [msg-depth].
TEST(Codec, CountsNestingInArraysToo) {
  message m;
  m.insert_message_array(1, {nested(7)});
  EXPECT_EQ(decodedText(encode(m)), describe(m));
  m.insert_message_array(1, {nested(8)});
  EXPECT_EQ(decodedText(encode(m)), "refused: nested too deep");
}

// Promise [msg-size]: A datagram of 131072 bytes (128 KiB) is taken, one byte more makes it no
// message: `too long`.
TEST(Codec, TakesTheLongestDatagramAndNoLongerOne) {
  constexpr size_t longest = 131072;
  message m;
  m.insert_string(1, std::string(longest - 8, 'x'));
  std::string datagram = encode(m);
  ASSERT_EQ(datagram.size(), longest);
  EXPECT_EQ(decodedText(datagram), describe(m));
  m.insert_string(1, std::string(longest - 7, 'x'));
  EXPECT_EQ(decodedText(encode(m)), "refused: too long");
}

// Promise [msg-cut]: A message that is cut anywhere but between two whole fields is refused.
TEST(Codec, RefusesEveryTruncationOfAMessage) {
  message m = nested(3);
  m.insert_u32_array(3, {1, 2, 3});
  m.insert_message_array(4, {nested(1), nested(0)});
  m.insert_string(5, "text");
  const std::string whole = encode(m);
  std::vector<size_t> ends;  // lengths that are whole fields
  for (size_t length = 1; length < whole.size(); ++length) {
    if (!decodedText(whole.substr(0, length)).starts_with("refused")) ends.push_back(length);
  }
  message shorter = nested(3);
  std::vector<size_t> expected{encode(shorter).size()};
  shorter.insert_u32_array(3, {1, 2, 3});
  expected.push_back(encode(shorter).size());
  shorter.insert_message_array(4, {nested(1), nested(0)});
  expected.push_back(encode(shorter).size());
  EXPECT_EQ(ends, expected);
}

// Promise: Random bytes are refused with a reason, or are a message that encodes to the same bytes
// again.
TEST(Codec, SurvivesRandomBytesAndGivesBackWhatItAccepts) {
  std::mt19937 random(20260);  // the same bytes in every run
  const message valid = nested(4);
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string datagram = encode(valid);
    if (round % 2 == 0) {
      datagram.resize(random() % 200);
      for (char& byte : datagram) byte = static_cast<char>(random());
    } else {
      datagram[random() % datagram.size()] = static_cast<char>(random());
    }
    const auto m = decode(datagram);
    if (m) {
      ++accepted;
      ASSERT_EQ(encode(*m), datagram);
    } else {
      ASSERT_FALSE(m.why().empty());
    }
  }
  EXPECT_GT(accepted, 0);
}

/// The processor time that decoding `fields` fields takes, the best of three.
std::chrono::nanoseconds costOfDecoding(uint32_t fields) {
  message m;
  for (uint32_t key = 0; key < fields; ++key) m.fields().append(key, true);
  const std::string datagram = encode(m);
  auto best = std::chrono::nanoseconds::max();
  for (int round = 0; round < 3; ++round) {
    const std::clock_t start = std::clock();
    EXPECT_TRUE(decode(datagram));
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    best = std::min(best, std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9)));
  }
  return best;
}

// Promise [msg-cost]: Decoding a datagram of many small fields takes little more than linear time.
TEST(Codec, DecodesManySmallFieldsInLittleMoreThanLinearTime) {
  const uint32_t most = maxDatagram / 5;
  // Comparing every pair of keys would take 64 times as long.
  EXPECT_LT(costOfDecoding(most), 24 * costOfDecoding(most / 8) + std::chrono::milliseconds(1));
}

}  // namespace
}  // namespace lm
