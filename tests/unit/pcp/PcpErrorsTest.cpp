#include <gtest/gtest.h>

#include <iterator>
#include <ostream>
#include <string>
#include <variant>

#include "pcp/Hex.h"
#include "pcp/codec/Pcp.h"

namespace pcp {
namespace {

using test::bytes;
using test::hex;

const std::string header = "02 01 0000 00000e10 00000000 00000000 0000ffff c0a8580a ";
const std::string announce = "02 00 0000 00000000 00000000 00000000 0000ffff c0a8580a ";
const std::string data =
    "0a0b0c0d 0e0f1011 12131415 06 000000 0050 1f90 00000000 00000000 0000ffff 00000000 ";
const std::string map = header + data;
const std::string end = "02 01 0000 00000000" + map.substr(19);  // with lifetime 0
const std::string anyPort =
    header + "0a0b0c0d 0e0f1011 12131415 06 000000 0050 0000" + data.substr(47);
const std::string filter24 = "00000000 00000000 0000ffff c6336400 ";

struct Row {
  std::string why;
  std::string hex;
  ResultCode code;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.why; }
};

class RefusedPcpRequest : public testing::TestWithParam<Row> {};

// Promise [pcp-codes]: A PCP request that the server cannot carry out is answered with the result
// code of RFC 6887 for its fault.
TEST_P(RefusedPcpRequest, IsAnsweredWithItsError) {
  const auto parsed = parseRequest(bytes(GetParam().hex));
  ASSERT_TRUE(parsed);
  ASSERT_TRUE(std::holds_alternative<ResultCode>(*parsed));
  EXPECT_EQ(std::get<ResultCode>(*parsed), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    PcpRequestTest, RefusedPcpRequest,
    testing::Values(
        Row{"version 1, of the drafts", "01 01", ResultCode::unsupportedVersion},
        Row{"version 3", "03" + map.substr(2), ResultCode::unsupportedVersion},
        Row{"PEER", "02 02" + map.substr(5), ResultCode::unsupportedOpcode},
        Row{"the highest opcode", "02 7f" + header.substr(5), ResultCode::unsupportedOpcode},
        Row{"another version that is cut", "03 01", ResultCode::unsupportedVersion},
        Row{"an ANNOUNCE with a byte too many", announce + "00", ResultCode::malformedRequest},
        Row{"a MAP without data", header, ResultCode::malformedRequest},
        Row{"a MAP cut", map.substr(0, map.size() - 9), ResultCode::malformedRequest},
        Row{"a length that is no multiple of 4", map + "00", ResultCode::malformedRequest},
        Row{"1104 bytes", map + "80 00 0410" + std::string(1040 * 2, '0'),
            ResultCode::malformedRequest},
        Row{"one port of all protocols",
            header + "0a0b0c0d 0e0f1011 12131415 00 000000 0050 1f90 " + filter24,
            ResultCode::malformedRequest},
        Row{"option 0, which is reserved", map + "00 00 0000", ResultCode::unsupportedOption},
        Row{"an unknown mandatory option", map + "04 00 0000", ResultCode::unsupportedOption},
        Row{"the highest mandatory option", map + "7f 00 0004 00000000",
            ResultCode::unsupportedOption},
        Row{"an option of MAP in ANNOUNCE", announce + "02 00 0000", ResultCode::unsupportedOption},
        Row{"an option longer than the message", map + "80 00 0005 01020304",
            ResultCode::malformedOption},
        Row{"the longest option, cut", map + "80 00 ffff 01020304", ResultCode::malformedOption},
        Row{"an unknown mandatory option before one that is cut", map + "04 00 0000 80 00 0004",
            ResultCode::malformedOption},
        Row{"an unknown option of ANNOUNCE that is cut", announce + "04 00 0004",
            ResultCode::malformedOption},
        Row{"THIRD_PARTY of 4 bytes", map + "01 00 0004 c0a85814", ResultCode::malformedOption},
        Row{"THIRD_PARTY twice", map + "01 00 0010 " + filter24 + "01 00 0010 " + filter24,
            ResultCode::malformedOption},
        Row{"PREFER_FAILURE with data", map + "02 00 0004 00000000", ResultCode::malformedOption},
        Row{"PREFER_FAILURE of any port", anyPort + "02 00 0000", ResultCode::malformedOption},
        Row{"PREFER_FAILURE of an end", end + "02 00 0000", ResultCode::malformedOption},
        Row{"FILTER of an end", end + "03 00 0014 00 78 0000 " + filter24,
            ResultCode::malformedOption},
        Row{"PREFER_FAILURE twice", map + "02 00 0000 02 00 0000", ResultCode::malformedOption},
        Row{"FILTER of 16 bytes", map + "03 00 0010 " + filter24, ResultCode::malformedOption},
        Row{"FILTER with a prefix of 129", map + "03 00 0014 00 81 0000 " + filter24,
            ResultCode::malformedOption},
        Row{"FILTER with a prefix of 95 of an IPv4 address",
            map + "03 00 0014 00 5f 0000 " + filter24, ResultCode::malformedOption}));

struct Silent {
  const char* why;
  std::string hex;

  friend void PrintTo(const Silent& row, std::ostream* out) { *out << row.why; }
};

class NoPcpRequest : public testing::TestWithParam<Silent> {};

// Promise [pcp-silent]: No response is answered, whatever it holds, so that two servers never
// answer each other, and no request of version 2 below 24 bytes.
TEST_P(NoPcpRequest, IsNotAnswered) { EXPECT_FALSE(parseRequest(bytes(GetParam().hex))); }

INSTANTIATE_TEST_SUITE_P(PcpRequestTest, NoPcpRequest,
                         testing::Values(Silent{"nothing", ""}, Silent{"one byte", "02"},
                                         Silent{"a MAP cut in its header", header.substr(0, 52)},
                                         Silent{"an ANNOUNCE cut", announce.substr(0, 49)},
                                         Silent{"an unknown opcode alone", "02 7f"},
                                         Silent{"a response", "02 81" + map.substr(5)},
                                         Silent{"a response of version 3", "03 80"}));

TEST(PcpResultTest, EveryCodeHasItsNumberAndItsLifetime) {
  struct {
    ResultCode code;
    uint32_t lifetime;
  } const results[] = {
      {ResultCode::success, 0},
      {ResultCode::unsupportedVersion, 1800},
      {ResultCode::notAuthorized, 1800},
      {ResultCode::malformedRequest, 1800},
      {ResultCode::unsupportedOpcode, 1800},
      {ResultCode::unsupportedOption, 1800},
      {ResultCode::malformedOption, 1800},
      {ResultCode::networkFailure, 30},
      {ResultCode::noResources, 30},
      {ResultCode::unsupportedProtocol, 1800},
      {ResultCode::userExceededQuota, 30},
      {ResultCode::cannotProvideExternal, 30},
      {ResultCode::addressMismatch, 1800},
      {ResultCode::excessiveRemotePeers, 1800},
  };
  for (size_t number = 0; number < std::size(results); ++number) {
    const auto& [code, lifetime] = results[number];
    EXPECT_EQ(errorLifetime(code), lifetime) << number;
    EXPECT_EQ(writeError(bytes(map), code, lifetime, 0)[3], number);
  }
}

}  // namespace
}  // namespace pcp
