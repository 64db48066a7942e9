#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <variant>

#include "pcp/Hex.h"
#include "pcp/codec/Pcp.h"

namespace pcp {
namespace {

using test::bytes;
using test::hex;

constexpr lumen::Ipv4Address lanHost = {192, 168, 88, 10};
constexpr lumen::Ipv4Address outside = {45, 45, 45, 2};

Request parsed(const std::vector<uint8_t>& datagram) {
  const auto request = parseRequest(datagram);
  if (!request || !std::holds_alternative<Request>(*request)) {
    ADD_FAILURE() << hex(datagram) << " is refused";
    return {};
  }
  return std::get<Request>(*request);
}

/// Version 2, opcode 1, 3600 seconds, for 192.168.88.10; then nonce, TCP, port 80, wished port 8080
/// of any address.
const std::string mapRequest =
    "02 01 0000 00000e10 00000000 00000000 0000ffff c0a8580a"
    "0a0b0c0d 0e0f1011 12131415 06 000000 0050 1f90"
    "00000000 00000000 0000ffff 00000000";

const MapData wished = {.nonce = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21},
                        .protocol = IPPROTO_TCP,
                        .internalPort = 80,
                        .externalPort = 8080,
                        .externalAddress = IpAddress::mapped(lumen::Ipv4Address())};

TEST(IpAddressTest, AnIpv4AddressIsMapped) {
  EXPECT_EQ(hex(IpAddress::mapped(outside).bytes), "00000000 00000000 0000ffff 2d2d2d02");
  EXPECT_EQ(IpAddress::mapped(outside).ipv4(), outside);
  // ::45.45.45.2 and 2001:db8::ffff:45.45.45.2 are addresses of IPv6.
  EXPECT_FALSE((IpAddress{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 45, 45, 45, 2}}.ipv4()));
  EXPECT_FALSE((IpAddress{{32, 1, 13, 184, 0, 0, 0, 0, 0, 0, 255, 255, 45, 45, 45, 2}}.ipv4()));
}

TEST(IpAddressTest, NoAddressIsWrittenInTwoWays) {
  EXPECT_TRUE(IpAddress().isUnspecified());
  EXPECT_TRUE(IpAddress::mapped(lumen::Ipv4Address()).isUnspecified());
  EXPECT_FALSE(IpAddress::mapped(outside).isUnspecified());
}

TEST(PcpRequestTest, AnAnnounceIsAHeaderAlone) {
  const auto datagram = bytes("02 00 0000 00000000 00000000 00000000 0000ffff c0a8580a");
  const Request request = parsed(datagram);
  EXPECT_EQ(request, Request{.client = IpAddress::mapped(lanHost)});
  EXPECT_EQ(write(request), datagram);
}

TEST(PcpRequestTest, AMapHasNonceProtocolPortsAndAWish) {
  const Request request = parsed(bytes(mapRequest));
  EXPECT_EQ(request,
            (Request{.lifetime = 3600, .client = IpAddress::mapped(lanHost), .map = wished}));
  EXPECT_EQ(write(request), bytes(mapRequest));
}

TEST(PcpRequestTest, ReservedBytesAreIgnored) {
  std::vector<uint8_t> datagram = bytes(mapRequest);
  datagram[2] = datagram[3] = 0xab;                   // of the header
  datagram[37] = datagram[38] = datagram[39] = 0xab;  // after the protocol
  EXPECT_EQ(parsed(datagram), parsed(bytes(mapRequest)));
}

TEST(PcpRequestTest, AllPortsOfAProtocolAndAllProtocolsAreRequests) {
  std::vector<uint8_t> datagram = bytes(mapRequest);
  datagram[40] = datagram[41] = 0;
  EXPECT_EQ(parsed(datagram).map->internalPort, 0);
  datagram[36] = 0;
  EXPECT_EQ(parsed(datagram).map->protocol, 0);
}

TEST(PcpRequestTest, OptionsOfAMapAreReadInTheirOrder) {
  const std::string options =
      "01 00 0010 00000000 00000000 0000ffff c0a85814"              // THIRD_PARTY 192.168.88.20
      "02 00 0000"                                                  // PREFER_FAILURE
      "03 00 0014 00 00 0000 00000000 00000000 00000000 00000000"   // FILTER: forget the others
      "03 00 0014 00 78 01bb 00000000 00000000 0000ffff c6336400";  // 198.51.100.0/24, port 443
  const Request request = parsed(bytes(mapRequest + options));
  EXPECT_EQ(request.thirdParty, IpAddress::mapped({192, 168, 88, 20}));
  EXPECT_TRUE(request.preferFailure);
  EXPECT_EQ(request.filters,
            (std::vector<Filter>{{}, {120, 443, IpAddress::mapped({198, 51, 100, 0})}}));
  EXPECT_EQ(write(request), bytes(mapRequest + options));
}

TEST(PcpRequestTest, AnUnknownOptionalOptionIsSkipped) {
  // Code 128 with 5 bytes and 3 of padding, then PREFER_FAILURE.
  const Request request = parsed(bytes(mapRequest + "80 00 0005 01020304 05000000" + "02 00 0000"));
  EXPECT_TRUE(request.preferFailure);
  EXPECT_EQ(hex(write(request)), hex(bytes(mapRequest + "02 00 0000")));
  // ANNOUNCE may have them as well.
  EXPECT_FALSE(
      parsed(bytes("02 00 0000 00000000 00000000 00000000 0000ffff c0a8580a ff 00 0000")).map);
}

TEST(PcpRequestTest, TheLongestMessageHas1100Bytes) {
  std::vector<uint8_t> datagram = bytes(mapRequest + "80 00 0000");
  const size_t data = 1100 - datagram.size();
  datagram[62] = static_cast<uint8_t>(data >> 8);
  datagram[63] = static_cast<uint8_t>(data);
  datagram.resize(1100);
  EXPECT_TRUE(parsed(datagram).map);
}

TEST(PcpResponseTest, ASuccessHasEpochAssignmentAndOptions) {
  Request request = parsed(bytes(mapRequest + "02 00 0000"));
  MapData assigned = wished;
  assigned.externalPort = 40000;
  assigned.externalAddress = IpAddress::mapped(outside);
  EXPECT_EQ(hex(writeSuccess(request, assigned, 1800, 7)),
            // Version 2, response to opcode 1, result 0; 1800 seconds; epoch 7; reserved.
            "02810000 00000708 00000007 00000000 00000000 00000000 "
            // Nonce; TCP; internal port 80, external port 40000 of 45.45.45.2.
            "0a0b0c0d 0e0f1011 12131415 06000000 00509c40 "
            "00000000 00000000 0000ffff 2d2d2d02 "
            // PREFER_FAILURE.
            "02000000");
}

TEST(PcpResponseTest, AnAnnouncementIsTheAnswerToAnAnnounce) {
  EXPECT_EQ(hex(writeAnnouncement(9)), "02800000 00000000 00000009 00000000 00000000 00000000");
  EXPECT_EQ(writeAnnouncement(9), writeSuccess(Request(), MapData(), 0, 9));
}

TEST(PcpResponseTest, AnErrorIsACopyOfTheRequest) {
  // ADDRESS_MISMATCH: half an hour, epoch 7; nothing of the client's address.
  EXPECT_EQ(hex(writeError(bytes(mapRequest), ResultCode::addressMismatch, 1800, 7)),
            "0281000c 00000708 00000007 00000000 00000000 00000000 "
            "0a0b0c0d 0e0f1011 12131415 06000000 00501f90 "
            "00000000 00000000 0000ffff 00000000");
}

TEST(PcpResponseTest, ARequestThatWasNotUnderstoodGetsTheEndOfItsAddressBack) {
  const auto peer = bytes("02 02 0000 00000e10 11111111 22222222 33333333 44444444");
  EXPECT_EQ(hex(writeError(peer, ResultCode::unsupportedOpcode, 1800, 7)),
            "02820004 00000708 00000007 22222222 33333333 44444444");
}

// RFC 6887 section 12.1, figures 11 and 12.
TEST(PcpResponseTest, APeerRequestComesBackWholeSinceItIsNotSupported) {
  const std::string client = "00000000 00000000 0000ffff c0a8580a ";  // 192.168.88.10
  const std::string peer =
      "0a0b0c0d 0e0f1011 12131415 06000000 "  // nonce; TCP
      "c0001f90 00000000 00000000 0000ffff "  // from port 49152, wished as 8080 of any address
      "00000000 01bb0000 00000000 00000000 "  // to port 443
      "0000ffff c6336407";                    // of 198.51.100.7
  const auto request = bytes("02020000 00000e10 " + client + peer);
  const auto parsed = parseRequest(request);
  ASSERT_TRUE(parsed && std::holds_alternative<ResultCode>(*parsed));
  EXPECT_EQ(std::get<ResultCode>(*parsed), ResultCode::unsupportedOpcode);
  // Version 2, opcode 128 + 2, UNSUPP_OPCODE for half an hour, epoch 7, the end of the client's
  // address; then all that followed.
  EXPECT_EQ(hex(writeError(request, ResultCode::unsupportedOpcode, 1800, 7)),
            "02820004 00000708 00000007 00000000 0000ffff c0a8580a " + peer);
}

TEST(PcpResponseTest, AnotherVersionIsAnsweredInOurs) {
  EXPECT_EQ(hex(writeError(bytes("01 01"), ResultCode::unsupportedVersion, 1800, 7)),
            "02810001 00000708 00000007 00000000 00000000 00000000");
}

TEST(PcpResponseTest, AnErrorHasALengthThatAMessageCanHave) {
  EXPECT_EQ(writeError(bytes("02 01 00"), ResultCode::malformedRequest, 0, 0).size(), 24U);
  std::vector<uint8_t> datagram = bytes(mapRequest + "02");
  EXPECT_EQ(writeError(datagram, ResultCode::malformedRequest, 0, 0).size(), 64U);
  datagram.resize(4096);
  EXPECT_EQ(writeError(datagram, ResultCode::malformedRequest, 0, 0).size(), 1100U);
}

}  // namespace
}  // namespace pcp
