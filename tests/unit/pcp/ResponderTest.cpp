#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

#include "pcp/FakePorts.h"
#include "pcp/Hex.h"
#include "pcp/table/Responder.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::hex;

constexpr IpAddress lanHost = IpAddress::mapped({192, 168, 88, 10});
constexpr IpAddress otherHost = IpAddress::mapped({192, 168, 88, 11});
constexpr lumen::Ipv4Address outside = {45, 45, 45, 2};

/// MAP of TCP port 80 to 8080 for an hour with THE nonce, as 192.168.88.10 sends it.
const std::string header = "02 01 0000 00000e10 00000000 00000000 0000ffff c0a8580a ";
const std::string nonce = "0a0b0c0d 0e0f1011 12131415 ";
const std::string tcp80 = "06 000000 0050 1f90 ";
const std::string anyAddress = "00000000 00000000 0000ffff 00000000 ";
const std::string map = header + nonce + tcp80 + anyAddress;

class ResponderTest : public testing::Test {
 protected:
  ResponderTest() { table.setExternal(outside); }

  std::string ask(const std::string& request, const IpAddress& source = lanHost) {
    const auto answer = responder.answer(bytes(request), source);
    return answer ? hex(*answer) : "nothing";
  }
  /// The result code and the lifetime of a PCP answer.
  std::string outcome(const std::string& request, const IpAddress& source = lanHost) {
    const auto answer = responder.answer(bytes(request), source);
    if (!answer || answer->size() < 24) return "nothing";
    const uint32_t lifetime = uint32_t{(*answer)[4]} << 24 | uint32_t{(*answer)[5]} << 16 |
                              uint32_t{(*answer)[6]} << 8 | (*answer)[7];
    return std::to_string((*answer)[3]) + " for " + std::to_string(lifetime);
  }

  bool isOpen(uint8_t protocol, uint16_t port) const {
    return ports.isOpen(protocol, {IpAddress::mapped(outside), port});
  }

  test::FakePorts ports;
  lm::test::ManualClock clock;
  MappingTable table{ports, clock};
  Epoch epoch{clock};
  std::set<IpAddress> agents;
  Responder responder{table, epoch, agents};
};

TEST_F(ResponderTest, NatPmpTellsTheExternalAddressAndTheEpoch) {
  clock.advance(5999ms);
  EXPECT_EQ(ask("00 00"), "00800000 00000005 2d2d2d02");
  epoch.restart();
  EXPECT_EQ(ask("00 00"), "00800000 00000000 2d2d2d02");
}

TEST_F(ResponderTest, NatPmpMapsRenewsAndEnds) {
  // TCP 80 to 8080 for 7200 seconds.
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00001c20"), "00820000 00000000 00501f90 00001c20");
  EXPECT_TRUE(isOpen(IPPROTO_TCP, 8080));
  // Another host gets another port.
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00001c20", otherHost), "00820000 00000000 0050c350 00001c20");
  // UDP ports are others.
  EXPECT_EQ(ask("00 01 0000 0050 1f90 00001c20"), "00810000 00000000 00501f90 00001c20");
  // Renewed.
  EXPECT_EQ(ask("00 02 0000 0050 0000 00000e10"), "00820000 00000000 00501f90 00000e10");
  // Ended: no external port, no lifetime (RFC 6886 section 3.4).
  EXPECT_EQ(ask("00 02 0000 0050 0000 00000000"), "00820000 00000000 00500000 00000000");
  EXPECT_FALSE(isOpen(IPPROTO_TCP, 8080));
  EXPECT_EQ(table.size(), 2U);
}

TEST_F(ResponderTest, NatPmpEndsAllOfAProtocol) {
  (void)ask("00 02 0000 0050 1f90 00001c20");
  (void)ask("00 02 0000 0051 1f91 00001c20");
  (void)ask("00 01 0000 0051 1f91 00001c20");
  EXPECT_EQ(ask("00 02 0000 0000 0000 00000000"), "00820000 00000000 00000000 00000000");
  EXPECT_EQ(table.size(), 1U);
  EXPECT_TRUE(isOpen(IPPROTO_UDP, 8081));
}

// Promise [natpmp-end-all]: A host that ends all its ports by NAT-PMP keeps those with a nonce of
// PCP, and is told so by result 2 (RFC 6886 section 3.4).
TEST_F(ResponderTest, NatPmpEndsAllThatItCanAndSaysThatSomeAreLeft) {
  EXPECT_EQ(outcome(map), "0 for 3600");
  (void)ask("00 02 0000 0051 1f91 00001c20");
  EXPECT_EQ(ask("00 02 0000 0000 0000 00000000"), "00820002 00000000 00000000 00000000");
  EXPECT_EQ(table.size(), 1U);
  EXPECT_TRUE(isOpen(IPPROTO_TCP, 8080));
}

// RFC 6886 section 3.4: the wished port of an end is ignored, also when all end.
TEST_F(ResponderTest, NatPmpEndsWhateverPortIsWished) {
  (void)ask("00 02 0000 0050 1f90 00001c20");
  EXPECT_EQ(ask("00 02 0000 0050 ffff 00000000"), "00820000 00000000 00500000 00000000");
  EXPECT_TRUE(ports.rules.empty());
  // What is not there has ended.
  EXPECT_EQ(ask("00 02 0000 0050 0000 00000000"), "00820000 00000000 00500000 00000000");
  (void)ask("00 02 0000 0050 1f90 00001c20");
  EXPECT_EQ(ask("00 02 0000 0000 ffff 00000000"), "00820000 00000000 00000000 00000000");
  EXPECT_TRUE(ports.rules.empty());
}

// RFC 6886 section 3.3: not longer than it was asked for, and 7200 seconds are recommended.
TEST_F(ResponderTest, NatPmpOffersNoLongerLifetimeThanTheClientAskedFor) {
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00000001"), "00820000 00000000 00501f90 00000001");
  EXPECT_EQ(ask("00 02 0000 0051 1f91 00001c20"), "00820000 00000000 00511f91 00001c20");
  EXPECT_EQ(ask("00 02 0000 0052 1f92 ffffffff"), "00820000 00000000 00521f92 00015180");
}

TEST_F(ResponderTest, NatPmpRefusesWithItsOwnResults) {
  // Port 0 is none.
  EXPECT_EQ(ask("00 02 0000 0000 1f90 00001c20"), "00820002 00000000 00000000 00000000");
  EXPECT_EQ(ask("00 03"), "00830005 00000000");
  EXPECT_EQ(ask("00 03 0000 0050 1f90 00001c20"), "00830005 00000000 00001c20");
  ports.failure = Ports::Failure::forbidden;
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00001c20"), "00820002 00000000 00500000 00000000");
  ports.failure = Ports::Failure::full;
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00001c20"), "00820004 00000000 00500000 00000000");
  table.setExternal(std::nullopt);
  EXPECT_EQ(ask("00 02 0000 0050 1f90 00001c20"), "00820003 00000000 00500000 00000000");
  EXPECT_EQ(ask("00 00"), "00800003 00000000 00000000");
  EXPECT_EQ(ask("00 80"), "nothing");
}

TEST_F(ResponderTest, PcpMapsRenewsAndEnds) {
  EXPECT_EQ(ask(map),
            "02810000 00000e10 00000000 00000000 00000000 00000000 "
            "0a0b0c0d 0e0f1011 12131415 06000000 00501f90 00000000 00000000 0000ffff 2d2d2d02");
  EXPECT_TRUE(isOpen(IPPROTO_TCP, 8080));
  EXPECT_EQ(outcome(map), "0 for 3600");
  EXPECT_EQ(table.size(), 1U);
  // Ended: the wishes come back.
  EXPECT_EQ(ask("02 01 0000 00000000" + map.substr(19)),
            "02810000 00000000 00000000 00000000 00000000 00000000 "
            "0a0b0c0d 0e0f1011 12131415 06000000 00501f90 00000000 00000000 0000ffff 00000000");
  EXPECT_EQ(table.size(), 0U);
}

TEST_F(ResponderTest, PcpAnnounceTellsTheEpoch) {
  clock.advance(60s);
  EXPECT_EQ(ask("02 00 0000 00000000 00000000 00000000 0000ffff c0a8580a"),
            "02800000 00000000 0000003c 00000000 00000000 00000000");
}

TEST_F(ResponderTest, AnotherVersionIsAnsweredWithTheOneWeSpeak) {
  EXPECT_EQ(ask("01 00"), "02800001 00000708 00000000 00000000 00000000 00000000");
  EXPECT_EQ(ask("ff 01 0000"), "02810001 00000708 00000000 00000000 00000000 00000000");
}

// Promise [pcp-own-host]: A PCP client opens ports to its own address only: what names another one
// is answered with ADDRESS_MISMATCH.
TEST_F(ResponderTest, TheAddressInARequestIsThatOfItsSender) {
  EXPECT_EQ(outcome(map, otherHost), "12 for 1800");
  EXPECT_EQ(outcome("02 00 0000 00000000 00000000 00000000 0000ffff c0a8580a", otherHost),
            "12 for 1800");
  // ::192.168.88.10
  EXPECT_EQ(outcome("02 01 0000 00000e10 00000000 00000000 00000000 c0a8580a " + nonce + tcp80 +
                    anyAddress),
            "12 for 1800");
  EXPECT_TRUE(ports.rules.empty());
}

TEST_F(ResponderTest, WhatHasNoPortsIsUnsupported) {
  for (const char* target : {"00 000000 0000 0000 ",     // all protocols
                             "06 000000 0000 0000 ",     // all ports of TCP
                             "84 000000 0050 1f90 "}) {  // SCTP
    EXPECT_EQ(outcome(header + nonce + target + anyAddress), "9 for 1800") << target;
    // It cannot be, so it has ended (RFC 6887 section 15.1).
    EXPECT_EQ(outcome("02 01 0000 00000000" + (header + nonce + target + anyAddress).substr(19)),
              "0 for 0");
  }
}

// RFC 6887 section 15.1: the wishes come back.
TEST_F(ResponderTest, TheEndOfWhatCannotBeIsAnsweredInFull) {
  EXPECT_EQ(ask("02 01 0000 00000000 00000000 00000000 0000ffff c0a8580a " + nonce +
                "84 000000 0050 1f90 " + anyAddress),
            "02810000 00000000 00000000 00000000 00000000 00000000 "
            "0a0b0c0d 0e0f1011 12131415 84000000 00501f90 00000000 00000000 0000ffff 00000000");
}

TEST_F(ResponderTest, WithAnotherNonceAClientWaitsForTheEndOfTheMapping) {
  EXPECT_EQ(outcome(map), "0 for 3600");
  const std::string other = header + "00000000 00000000 00000001 " + tcp80 + anyAddress;
  EXPECT_EQ(outcome(other), "2 for 3600");
  clock.advance(3000s);
  EXPECT_EQ(outcome(other), "2 for 600");
  // Nor is it ended.
  EXPECT_EQ(outcome("02 01 0000 00000000" + other.substr(19)), "2 for 600");
  // NAT-PMP has no nonce, and so cannot end it either.
  EXPECT_EQ(ask("00 02 0000 0050 0000 00000000"), "00820002 00000bb8 00500000 00000000");
  EXPECT_EQ(table.size(), 1U);
}

TEST_F(ResponderTest, PreferFailureTakesNoOtherPortOrAddress) {
  EXPECT_EQ(outcome(map), "0 for 3600");
  const std::string second = nonce + "06 000000 0051 1f90 ";
  EXPECT_EQ(outcome(header + second + anyAddress + "02 00 0000"), "11 for 30");
  EXPECT_EQ(outcome(header + second + anyAddress), "0 for 3600");
  const std::string third = nonce + "06 000000 0052 1f99 ";
  const std::string elsewhere = "00000000 00000000 0000ffff 2d2d2d03 ";
  EXPECT_EQ(outcome(header + third + elsewhere + "02 00 0000"), "11 for 30");
  EXPECT_EQ(outcome(header + third + elsewhere), "0 for 3600");
  const std::string fourth = nonce + "06 000000 0053 1f9a ";
  const std::string ours = "00000000 00000000 0000ffff 2d2d2d02 ";
  EXPECT_EQ(outcome(header + fourth + ours + "02 00 0000"), "0 for 3600");
}

// Promise: A PCP client whose port is open already by UPnP or the administrator is told that port,
// cannot end it, and gets one of its own when it is gone.
TEST_F(ResponderTest, APortThatIsOpenByOtherMeansIsTheAnswer) {
  ports.others = {.protocol = IPPROTO_TCP,
                  .external = {IpAddress::mapped(outside), 9090},
                  .client = {lanHost, 80}};
  EXPECT_EQ(ask(map),
            "02810000 00000e10 00000000 00000000 00000000 00000000 "
            "0a0b0c0d 0e0f1011 12131415 06000000 00502382 00000000 00000000 0000ffff 2d2d2d02");
  // For a day at most, so that the client asks again.
  EXPECT_EQ(outcome("02 01 0000 ffffffff" + map.substr(19)), "0 for 86400");
  EXPECT_EQ(outcome("02 01 0000 00000001" + map.substr(19)), "0 for 120");
  // RFC 6887 section 15.1: it is not ended by PCP.
  EXPECT_EQ(outcome("02 01 0000 00000000" + map.substr(19)), "2 for 1800");
  EXPECT_TRUE(ports.rules.empty());
  EXPECT_EQ(table.size(), 0U);
  // Other targets are others.
  EXPECT_EQ(outcome(header + nonce + "11 000000 0050 1f90 " + anyAddress), "0 for 3600");
  EXPECT_EQ(outcome(header + nonce + "06 000000 0051 1f91 " + anyAddress), "0 for 3600");
  EXPECT_EQ(ports.rules.size(), 2U);
  // NAT-PMP has no such answer.
  EXPECT_EQ(ask("00 02 0000 0050 1f9f 00001c20"), "00820000 00000000 00501f9f 00001c20");
  EXPECT_EQ(ask("00 02 0000 0050 0000 00000000"), "00820000 00000000 00500000 00000000");
  ports.others = {};
  EXPECT_EQ(outcome(map), "0 for 3600");
  EXPECT_TRUE(isOpen(IPPROTO_TCP, 8080));
}

TEST_F(ResponderTest, PreferFailureTakesAPortOfOthersOnlyIfItIsTheWishedOne) {
  ports.others = {.protocol = IPPROTO_TCP,
                  .external = {IpAddress::mapped(outside), 9090},
                  .client = {lanHost, 80}};
  const std::string preferFailure = "02 00 0000";
  const std::string tcp9090 = "06 000000 0050 2382 ";
  const std::string ours = "00000000 00000000 0000ffff 2d2d2d02 ";
  const std::string elsewhere = "00000000 00000000 0000ffff 2d2d2d03 ";
  EXPECT_EQ(outcome(map + preferFailure), "11 for 30");
  EXPECT_EQ(outcome(header + nonce + tcp9090 + anyAddress + preferFailure), "0 for 3600");
  EXPECT_EQ(outcome(header + nonce + tcp9090 + ours + preferFailure), "0 for 3600");
  EXPECT_EQ(outcome(header + nonce + tcp9090 + elsewhere + preferFailure), "11 for 30");
  EXPECT_EQ(outcome(header + nonce + tcp9090 + elsewhere), "0 for 3600");
  EXPECT_TRUE(ports.rules.empty());
}

// Once mapped it is renewed and ended as any mapping, whatever others open.
TEST_F(ResponderTest, AMappingStaysWhenOthersOpenThePortToo) {
  EXPECT_EQ(outcome(map), "0 for 3600");
  ports.others = {.protocol = IPPROTO_TCP,
                  .external = {IpAddress::mapped(outside), 9090},
                  .client = {lanHost, 80}};
  EXPECT_EQ(ask(map).substr(ask(map).find("00501f90"), 8), "00501f90");
  EXPECT_EQ(outcome("02 01 0000 00000000" + map.substr(19)), "0 for 0");
  EXPECT_TRUE(ports.rules.empty());
}

TEST_F(ResponderTest, APortForSomeNetworksIsNoneOfOthers) {
  ports.others = {.protocol = IPPROTO_TCP,
                  .external = {IpAddress::mapped(outside), 9090},
                  .client = {lanHost, 80}};
  const std::string office = "03 00 0014 00 78 0000 00000000 00000000 0000ffff c6336400 ";
  EXPECT_EQ(outcome(map + office), "0 for 3600");
  EXPECT_TRUE(isOpen(IPPROTO_TCP, 8080));
}

TEST_F(ResponderTest, FiltersAreTheNetworksOfThePort) {
  const lumen::Ipv6Network office = test::mapped({198, 51, 100, 0}, 24);
  const lumen::Ipv6Network home = test::mapped({203, 0, 113, 7}, 32);
  const std::string officeBytes = "00000000 00000000 0000ffff c6336400 ";  // 198.51.100.0
  const std::string homeBytes = "00000000 00000000 0000ffff cb007107 ";    // 203.0.113.7
  // Option 3 of 20 bytes: a reserved byte, the prefix, the remote port; then the address.
  const auto filter = [](const std::string& prefixAndPort, const std::string& address) {
    return "03 00 0014 00 " + prefixAndPort + address;
  };
  const auto remotes = [&] { return ports.rules.begin()->second.remotes; };
  EXPECT_EQ(outcome(map + filter("78 0000", officeBytes)), "0 for 3600");
  EXPECT_EQ(remotes(), Networks{office});
  EXPECT_EQ(outcome(map + filter("80 0000", homeBytes) + filter("80 0000", officeBytes)),
            "0 for 3600");
  EXPECT_EQ(remotes(), (Networks{office, home})) << "one more; the other lies in the first";
  // One port of the remote host, an address of IPv6: more than a rule can do.
  EXPECT_EQ(outcome(map + filter("78 01bb", officeBytes)), "13 for 1800");
  EXPECT_EQ(outcome(map + filter("40 0000", "20010db8 00000000 00000000 00000000 ")),
            "13 for 1800");
  // All of IPv4, before or after another one, is no filter.
  for (const std::string& all : {filter("60 0000", anyAddress) + filter("78 0000", officeBytes),
                                 filter("78 0000", officeBytes) + filter("60 0000", anyAddress)}) {
    EXPECT_EQ(outcome(map + all), "0 for 3600");
    EXPECT_EQ(remotes(), Networks{});
  }
  // They count in their order: forget what was before, then this one.
  EXPECT_EQ(outcome(map + filter("60 0000", anyAddress) + filter("80 0000", homeBytes) +
                    filter("00 0000", anyAddress) + filter("78 0000", officeBytes)),
            "0 for 3600");
  EXPECT_EQ(remotes(), Networks{office});
  EXPECT_EQ(outcome(map + filter("80 0000", homeBytes) + filter("00 0000", anyAddress)),
            "0 for 3600");
  EXPECT_EQ(remotes(), Networks{});
}

// Promise [pcp-agents]: Only a host that the administrator names may open ports to another one.
TEST_F(ResponderTest, OnlyAgentsAskForOthers) {
  const std::string forOther = map + "01 00 0010 00000000 00000000 0000ffff c0a8580b";
  EXPECT_EQ(outcome(forOther), "5 for 1800");
  agents = {otherHost};
  EXPECT_EQ(outcome(forOther), "5 for 1800");
  EXPECT_TRUE(ports.rules.empty());
  agents = {lanHost};
  EXPECT_EQ(outcome(forOther), "0 for 3600");
  EXPECT_EQ(ports.rules.begin()->second.client, (Endpoint{otherHost, 80}));
  // For itself it does not need the option.
  EXPECT_EQ(outcome(map + "01 00 0010 00000000 00000000 0000ffff c0a8580a"), "3 for 1800");
  EXPECT_EQ(outcome(map + "01 00 0010 20010db8 00000000 00000000 00000001"), "3 for 1800");
}

TEST_F(ResponderTest, WithoutAnExternalAddressPcpSaysSo) {
  table.setExternal(std::nullopt);
  EXPECT_EQ(outcome(map), "7 for 30");
  EXPECT_EQ(hex(responder.natPmpAnnouncement()), "00800003 00000000 00000000");
}

TEST_F(ResponderTest, AnnouncementsAreAnswersThatWereNotAskedFor) {
  clock.advance(2s);
  EXPECT_EQ(hex(responder.natPmpAnnouncement()), "00800000 00000002 2d2d2d02");
  EXPECT_EQ(hex(responder.pcpAnnouncement()),
            "02800000 00000000 00000002 00000000 00000000 00000000");
}

}  // namespace
}  // namespace pcp
