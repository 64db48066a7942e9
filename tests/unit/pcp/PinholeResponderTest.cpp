#include <gtest/gtest.h>
#include <netinet/in.h>

#include <set>
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

IpAddress ip6(const std::string& text) { return IpAddress::parse(text).value(); }

/// MAP for an hour, as 2001:db8:1::10 sends it.
const std::string address = "20010db8 00010000 00000000 00000010 ";
const std::string other = "20010db8 00010000 00000000 00000011 ";
const std::string header = "02 01 0000 00000e10 " + address;
const std::string nonce = "0a0b0c0d 0e0f1011 12131415 ";
const std::string tcp80 = "06 000000 0050 0000 ";  // no wish for an external port
const std::string tcp80as80 = "06 000000 0050 0050 ";
const std::string tcp80as8080 = "06 000000 0050 1f90 ";
const std::string anyAddress = "00000000 00000000 00000000 00000000 ";
const std::string preferFailure = "02 00 0000 ";

/// The answers to IPv6 hosts.
class PinholeResponderTest : public testing::Test {
 protected:
  /// The whole answer.
  std::string ask(const std::string& request) {
    const auto answer = responder.answer(bytes(request), source);
    return answer ? hex(*answer) : "nothing";
  }
  /// The result code and the lifetime.
  std::string outcome(const std::string& request) {
    const auto answer = responder.answer(bytes(request), source);
    if (!answer || answer->size() < 24) return "nothing";
    const uint32_t lifetime = uint32_t{(*answer)[4]} << 24 | uint32_t{(*answer)[5]} << 16 |
                              uint32_t{(*answer)[6]} << 8 | (*answer)[7];
    return std::to_string((*answer)[3]) + " for " + std::to_string(lifetime);
  }

  IpAddress source = ip6("2001:db8:1::10");
  test::FakePorts ports;
  lm::test::ManualClock clock;
  MappingTable table{ports, clock};
  Epoch epoch{clock};
  std::set<IpAddress> agents;
  Responder responder{table, epoch, agents};
};

// Promise [pinhole-map]: A host on the LAN opens a port to itself by PCP over IPv6: its external
// address and port are its own, whatever it suggests.
TEST_F(PinholeResponderTest, MapsAHostsOwnAddressAndPort) {
  clock.advance(7s);
  const std::string success =
      "02810000 00000e10 00000007 00000000 00000000 00000000 "  // lifetime 3600, epoch 7
      "0a0b0c0d 0e0f1011 12131415 "                             // the nonce
      "06000000 00500050 "                                      // TCP, port 80 inside and outside
      "20010db8 00010000 00000000 00000010";                    // the external address
  EXPECT_EQ(ask(header + nonce + tcp80 + anyAddress), success);
  EXPECT_EQ(ask(header + nonce + tcp80as8080 + other), success) << "a hint that does no harm";
  ASSERT_EQ(ports.rules.size(), 1U);
  EXPECT_EQ(ports.rules[1].client, (Endpoint{source, 80}));
  EXPECT_EQ(ports.rules[1].external, (Endpoint{source, 80}));
  EXPECT_EQ(ports.rules[1].protocol, IPPROTO_TCP);
}

TEST_F(PinholeResponderTest, EndsAMapping) {
  (void)ask(header + nonce + tcp80 + anyAddress);
  const std::string end = "02 01 0000 00000000 " + address + nonce + tcp80 + anyAddress;
  EXPECT_EQ(outcome(end), "0 for 0");
  EXPECT_TRUE(ports.rules.empty());
  EXPECT_EQ(outcome(end), "0 for 0");
}

// Also proves [pinhole-map].
TEST_F(PinholeResponderTest, PreferFailureTakesNoOtherPortOrAddress) {
  EXPECT_EQ(outcome(header + nonce + tcp80as8080 + anyAddress + preferFailure), "11 for 30");
  EXPECT_EQ(outcome(header + nonce + tcp80as80 + other + preferFailure), "11 for 30");
  EXPECT_EQ(outcome(header + nonce + tcp80as80 + address + preferFailure), "0 for 3600");
  // RFC 6887 section 13.2: without a port it is malformed; section 11.3: to end a mapping too.
  EXPECT_EQ(outcome(header + nonce + tcp80 + anyAddress + preferFailure), "6 for 1800");
  EXPECT_EQ(outcome("02 01 0000 00000000 " + address + nonce + tcp80as80 + address + preferFailure),
            "6 for 1800");
}

TEST_F(PinholeResponderTest, TheAddressInARequestIsThatOfItsSender) {
  EXPECT_EQ(outcome("02 01 0000 00000e10 " + other + nonce + tcp80 + anyAddress), "12 for 1800");
  EXPECT_EQ(outcome("02 00 0000 00000000 " + other), "12 for 1800");
  EXPECT_EQ(outcome("02 00 0000 00000000 " + address), "0 for 0");
}

TEST_F(PinholeResponderTest, OnlyAgentsAskForOthers) {
  const std::string thirdParty = "01 00 0010 ";
  const std::string request = header + nonce + tcp80 + anyAddress + thirdParty;
  EXPECT_EQ(outcome(request + other), "5 for 1800");
  agents = {ip6("2001:db8:1::99")};
  EXPECT_EQ(outcome(request + other), "5 for 1800") << "RFC 6887 section 13.1";
  agents = {source};
  EXPECT_EQ(outcome(request + address), "3 for 1800") << "it is for others";
  EXPECT_EQ(outcome(request + "00000000 00000000 0000ffff c0a8580a "), "3 for 1800");
  EXPECT_EQ(outcome(request + other), "0 for 3600");
  EXPECT_EQ(ports.rules[1].client.address, ip6("2001:db8:1::11"));
}

// RFC 6887 section 13.3. Also proves [pinhole-remotes].
TEST_F(PinholeResponderTest, FiltersAreTheNetworksOfThePinhole) {
  const std::string map = header + nonce + tcp80 + anyAddress;
  const std::string office = "20010db8 00ff0000 00000000 00000000 ";
  const std::string home = "20010db8 00fe0000 00000000 00000007 ";
  const std::string ipv4 = "00000000 00000000 0000ffff c6336400 ";  // 198.51.100.0
  // Option 3 of 20 bytes: a reserved byte, the prefix, the remote port; then the address.
  const auto filter = [](const std::string& prefixAndPort, const std::string& remote) {
    return "03 00 0014 00 " + prefixAndPort + remote;
  };
  const auto remotes = [&] { return lumen::networksText(ports.rules.begin()->second.remotes); };
  EXPECT_EQ(outcome(map + filter("30 0000", office)), "0 for 3600");
  EXPECT_EQ(remotes(), "2001:db8:ff::/48");
  EXPECT_EQ(outcome(map + filter("80 0000", home)), "0 for 3600");
  EXPECT_EQ(remotes(), "2001:db8:fe::7/128 2001:db8:ff::/48") << "one more";
  // One port of the remote host, and hosts of IPv4, which reach no pinhole.
  EXPECT_EQ(outcome(map + filter("30 01bb", office)), "13 for 1800");
  EXPECT_EQ(outcome(map + filter("78 0000", ipv4)), "13 for 1800");
  EXPECT_EQ(outcome(map + filter("60 0000", ipv4)), "13 for 1800");
  EXPECT_EQ(remotes(), "2001:db8:fe::7/128 2001:db8:ff::/48");
  // Of an IPv4 address the prefix is from 96 on; none is longer than 128.
  EXPECT_EQ(outcome(map + filter("5f 0000", ipv4)), "6 for 1800");
  EXPECT_EQ(outcome(map + filter("81 0000", office)), "6 for 1800");
  // Prefix 0 forgets those before it.
  EXPECT_EQ(outcome(map + filter("00 0000", office) + filter("01 0000", office)), "0 for 3600");
  EXPECT_EQ(remotes(), "::/1");
  EXPECT_EQ(outcome(map + filter("30 0000", office) + filter("00 0000", home)), "0 for 3600");
  EXPECT_EQ(remotes(), "");
}

TEST_F(PinholeResponderTest, RefusesWhatAPinholeCannotBe) {
  // All protocols, all ports, SCTP.
  EXPECT_EQ(outcome(header + nonce + "00 000000 0000 0000 " + anyAddress), "9 for 1800");
  EXPECT_EQ(outcome(header + nonce + "06 000000 0000 0000 " + anyAddress), "9 for 1800");
  EXPECT_EQ(outcome(header + nonce + "84 000000 0050 0000 " + anyAddress), "9 for 1800");
  // It cannot be, so it has ended (RFC 6887 section 15.1).
  EXPECT_EQ(outcome("02 01 0000 00000000 " + address + nonce + "84 000000 0050 0000 " + anyAddress),
            "0 for 0");
  // PCP's own ports, UDP 5350 and 5351.
  EXPECT_EQ(outcome(header + nonce + "11 000000 14e6 0000 " + anyAddress), "2 for 1800");
  EXPECT_EQ(outcome(header + nonce + "11 000000 14e7 0000 " + anyAddress), "2 for 1800");
  EXPECT_TRUE(ports.rules.empty());
}

TEST_F(PinholeResponderTest, KnowsNoNatPmp) {
  EXPECT_EQ(ask("00 00"), "02800001 00000708 00000000 00000000 00000000 00000000");
  EXPECT_EQ(ask("02 81 0000 00000000 " + address), "nothing") << "an answer";
  EXPECT_EQ(ask(""), "nothing");
}

// Also proves [pinhole-forwarding].
TEST_F(PinholeResponderTest, SaysForAShortTimeThatTheRouterDoesNotForward) {
  ports.failure = Ports::Failure::network;
  EXPECT_EQ(outcome(header + nonce + tcp80 + anyAddress), "7 for 30");
}

TEST_F(PinholeResponderTest, AnotherNonceIsRefusedUntilTheMappingEnds) {
  (void)ask(header + nonce + tcp80 + anyAddress);
  clock.advance(3000s);
  EXPECT_EQ(outcome(header + "ffffffff ffffffff ffffffff " + tcp80 + anyAddress), "2 for 600");
}

TEST_F(PinholeResponderTest, AnnouncesTheEpoch) {
  clock.advance(5s);
  EXPECT_EQ(hex(responder.pcpAnnouncement()),
            "02800000 00000000 00000005 00000000 00000000 00000000");
}

}  // namespace
}  // namespace pcp
