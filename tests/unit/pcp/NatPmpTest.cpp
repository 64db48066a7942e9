#include <gtest/gtest.h>
#include <netinet/in.h>

#include <optional>
#include <ostream>
#include <string>
#include <variant>

#include "pcp/Hex.h"
#include "pcp/codec/NatPmp.h"

namespace pcp::natpmp {
namespace {

using test::bytes;
using test::hex;

template <typename T>
std::optional<T> parsed(std::string_view text) {
  const std::optional<Request> request = parseRequest(bytes(text));
  if (!request || !std::holds_alternative<T>(*request)) return std::nullopt;
  return std::get<T>(*request);
}

TEST(NatPmpRequestTest, TheExternalAddressIsAskedForByTwoBytes) {
  //                                 version 0, opcode 0
  EXPECT_TRUE(parsed<AddressRequest>("00 00"));
  EXPECT_EQ(hex(write(AddressRequest())), "0000");
}

TEST(NatPmpRequestTest, AMappingIsAskedForWithBothPortsAndALifetime) {
  // Version 0, opcode 1 (UDP), reserved, internal port 1234, wished port 5678, 7200 seconds.
  const std::string_view udp = "00 01 0000 04d2 162e 00001c20";
  const auto request = parsed<MapRequest>(udp);
  ASSERT_TRUE(request);
  EXPECT_EQ(*request, (MapRequest{IPPROTO_UDP, 1234, 5678, 7200}));
  EXPECT_EQ(write(*request), bytes(udp));
  // Opcode 2: TCP. The highest values: the signs of C's types must not matter.
  const std::string_view tcp = "00 02 0000 ffff fffe ffffffff";
  EXPECT_EQ(parsed<MapRequest>(tcp), (MapRequest{IPPROTO_TCP, 65535, 65534, 0xffffffff}));
  EXPECT_EQ(write(*parsed<MapRequest>(tcp)), bytes(tcp));
}

TEST(NatPmpRequestTest, ReservedBytesAreIgnored) {
  EXPECT_EQ(parsed<MapRequest>("00 01 abcd 04d2 162e 00001c20"),
            (MapRequest{IPPROTO_UDP, 1234, 5678, 7200}));
}

TEST(NatPmpRequestTest, AnUnknownOpcodeOfAnyLengthIsOne) {
  EXPECT_EQ(parsed<UnknownRequest>("00 03"), UnknownRequest{3});
  EXPECT_EQ(parsed<UnknownRequest>("00 7f 0000 04d2"), UnknownRequest{127});
  EXPECT_EQ(hex(write(UnknownRequest{127})), "007f");
}

struct Row {
  const char* why;
  const char* hex;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.why; }
};

class NoNatPmpRequest : public testing::TestWithParam<Row> {};

// Promise [natpmp-length]: Responses and NAT-PMP requests of a wrong length are not answered.
TEST_P(NoNatPmpRequest, IsNotAnswered) { EXPECT_FALSE(parseRequest(bytes(GetParam().hex))); }

INSTANTIATE_TEST_SUITE_P(
    NatPmpRequestTest, NoNatPmpRequest,
    testing::Values(Row{"nothing", ""}, Row{"no opcode", "00"}, Row{"another version", "01 00"},
                    Row{"a response", "00 80 0000 00000001 2d2d2d02"},
                    Row{"a response of an unknown opcode", "00 ff"},
                    Row{"a byte after the request for the address", "00 00 00"},
                    Row{"a mapping without its last byte", "00 01 0000 04d2 162e 00001c"},
                    Row{"a mapping with a byte too many", "00 02 0000 04d2 162e 00001c20 00"},
                    Row{"a mapping with nothing else", "00 02"}));

TEST(NatPmpResponseTest, TheExternalAddressHasTheEpochBeforeIt) {
  // Version 0, opcode 128 + 0, result 0, epoch 16909060, 45.45.45.2.
  EXPECT_EQ(hex(write(AddressResponse{Result::success, 0x01020304, {45, 45, 45, 2}})),
            "00800000 01020304 2d2d2d02");
}

TEST(NatPmpResponseTest, AMappingHasItsPortsAndItsLifetime) {
  // Version 0, opcode 128 + 1, result 0, epoch 5, internal port 1234, external 5678, 3600 seconds.
  EXPECT_EQ(hex(write(MapResponse{IPPROTO_UDP, Result::success, 5, 1234, 5678, 3600})),
            "00810000 00000005 04d2162e 00000e10");
  EXPECT_EQ(hex(write(MapResponse{IPPROTO_TCP, Result::success, 5, 1234, 0, 0})),
            "00820000 00000005 04d20000 00000000");
}

TEST(NatPmpResponseTest, ARequestOfAnUnknownOpcodeComesBackWithResultFive) {
  // Opcode 3 becomes 128 + 3; result 5, epoch 5.
  EXPECT_EQ(hex(writeUnsupported(bytes("00 03"), 5)), "00830005 00000005");
  EXPECT_EQ(hex(writeUnsupported(bytes("00 7f abcd 01020304"), 5)), "00ff0005 00000005");
  // What follows the epoch is the request's own.
  EXPECT_EQ(hex(writeUnsupported(bytes("00 03 abcd 01020304 162e"), 5)), "00830005 00000005 162e");
}

// Promise [natpmp-results]: NAT-PMP answers have the result codes 0 to 5 of RFC 6886.
TEST(NatPmpResponseTest, EveryResultHasItsNumber) {
  const Result results[] = {Result::success,        Result::unsupportedVersion,
                            Result::notAuthorized,  Result::networkFailure,
                            Result::outOfResources, Result::unsupportedOpcode};
  for (size_t number = 0; number < std::size(results); ++number) {
    EXPECT_EQ(hex(write(AddressResponse{results[number], 1, {}})),
              "0080000" + std::to_string(number) + " 00000001 00000000");
  }
}

}  // namespace
}  // namespace pcp::natpmp
