#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <random>

#include "lumen/services/system/netlink/NetlinkReader.h"
#include "services/system/netlink/NetlinkBytes.h"
#include "support/Ipv4Text.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

using test::ip;

/// The one message that the datagram must hold.
NetlinkMessage read(const NetlinkBytes& datagram) {
  const auto messages = readNetlink(datagram.span());
  if (!messages || messages->size() != 1) {
    ADD_FAILURE() << "not one message: " << whyNot(messages);
    return {};
  }
  return messages->front();
}

template <typename What>
What as(const NetlinkMessage& m) {
  const auto* what = std::get_if<What>(&m.what);
  EXPECT_NE(what, nullptr) << "another kind of message";
  return what ? *what : What{};
}

// Promise: Links, addresses, routes, refusals and ends of listings are read from the kernel's
// bytes, several from one datagram.
TEST(NetlinkReader, ReadsALinkWithItsCounters) {
  const NetlinkMessage m = read(linkWithCounters);
  EXPECT_EQ(m.sequence, 9U);
  EXPECT_EQ(m.port, 0x4098U);
  const auto status = as<NetlinkMessage::LinkIs>(m).status;
  EXPECT_EQ(status.link.index, 3U);
  EXPECT_EQ(status.link.name, "wan0");
  EXPECT_EQ(status.link.hardwareType, 1U);
  EXPECT_TRUE(status.link.up);
  EXPECT_TRUE(status.link.running);
  EXPECT_FALSE(status.link.loopback);
  EXPECT_EQ(status.counters.packetsReceived, 5U);
  EXPECT_EQ(status.counters.packetsSent, 3U);
  EXPECT_EQ(status.counters.bytesReceived, 370U);
  EXPECT_EQ(status.counters.bytesSent, 426U);
}

TEST(NetlinkReader, SaysThatALinkThatIsDownIsNotRunning) {
  NetlinkBytes bytes = linkWithCounters;
  bytes.bytes()[24] = std::byte{0x42};  // IFF_RUNNING without IFF_UP
  const auto link = as<NetlinkMessage::LinkIs>(read(bytes)).status.link;
  EXPECT_FALSE(link.up);
  EXPECT_FALSE(link.running);
}

TEST(NetlinkReader, ReadsADeletedLink) {
  EXPECT_EQ(as<NetlinkMessage::LinkGone>(read(linkDeleted)).index, 5U);
}

// Promise: A port that leaves its bridge is not taken for a link that leaves.
TEST(NetlinkReader, DoesNotTakeAPortThatLeavesItsBridgeForADeletedLink) {
  const auto messages = readNetlink(portLeftBridge.span());
  ASSERT_EQ(whyNot(messages), "");
  EXPECT_TRUE(messages->empty());
}

TEST(NetlinkReader, ReadsAnAddressWithItsNetwork) {
  const auto is = as<NetlinkMessage::AddressIs>(read(addressAdded));
  EXPECT_EQ(is.index, 3U);
  EXPECT_EQ(is.address,
            (LinkAddress{ip("45.45.45.2"), Ipv4Network(ip("45.45.45.0"), 24), ip("45.45.45.255")}));
}

TEST(NetlinkReader, KeepsThePeerOfAPointToPointAddressAsItsNetwork) {
  const auto gone = as<NetlinkMessage::AddressGone>(read(peerAddressRemoved));
  EXPECT_EQ(gone.index, 3U);
  EXPECT_EQ(gone.address,
            (LinkAddress{ip("10.0.0.1"), Ipv4Network(ip("10.0.0.2"), 32), std::nullopt}));
}

TEST(NetlinkReader, TakesABroadcastAddressOfZerosForNone) {
  NetlinkBytes bytes = addressAdded;
  std::fill_n(bytes.bytes().begin() + 44, 4, std::byte{0});
  EXPECT_EQ(as<NetlinkMessage::AddressIs>(read(bytes)).address.broadcast, std::nullopt);
}

TEST(NetlinkReader, ReadsAnIpv6AddressWithItsNetwork) {
  const auto is = as<NetlinkMessage::Ipv6AddressIs>(read(ipv6AddressAdded));
  EXPECT_EQ(is.index, 2U);
  EXPECT_EQ(is.address.address.text(), "2001:db8:1::1");
  EXPECT_EQ(is.address.network.text(), "2001:db8:1::/64");
  NetlinkBytes removed = ipv6AddressAdded;
  removed.bytes()[4] = std::byte{0x15};  // RTM_DELADDR
  const auto gone = as<NetlinkMessage::Ipv6AddressGone>(read(removed));
  EXPECT_EQ(gone.index, 2U);
  EXPECT_EQ(gone.address, is.address);
}

TEST(NetlinkReader, KeepsThePeerOfAnIpv6AddressAsItsNetwork) {
  const auto is = as<NetlinkMessage::Ipv6AddressIs>(read(ipv6PeerAddressAdded));
  EXPECT_EQ(is.address.address.text(), "2001:db8:2::1");
  EXPECT_EQ(is.address.network.text(), "2001:db8:2::2/128");
}

TEST(NetlinkReader, ReadsARouteWithAGateway) {
  const auto is = as<NetlinkMessage::RouteIs>(read(defaultRoute));
  EXPECT_EQ(is.family, static_cast<uint32_t>(AF_INET));
  EXPECT_FALSE(is.kernelMade);
  EXPECT_TRUE(is.gateway);
  EXPECT_EQ(is.links, std::vector<uint32_t>{3});
  const auto body = defaultRoute.span().subspan(16);
  ASSERT_EQ(is.content.size(), body.size());
  EXPECT_EQ(std::memcmp(is.content.data(), body.data(), body.size()), 0);
}

// The same route must look the same each time it is saved.
TEST(NetlinkReader, LeavesOutWhatChangesWithEachLookAtARoute) {
  const auto withAge = [](const char* age) {
    return as<NetlinkMessage::RouteIs>(read(
        NetlinkBytes{"38 00 00 00 18 00 02 00 00 00 00 00 00 00 00 00",
                     "02 00 00 00 fe 03 00 01 00 00 00 00",  // AF_INET, RT_TABLE_MAIN, RTPROT_BOOT
                     "07 00 07 00 2d 2d 2d 00", age,         // three bytes, padded
                     "08 00 04 00 03 00 00 00"}));
  };
  const auto young = withAge("0c 00 0c 00 01 00 00 00 00 00 00 00");  // RTA_CACHEINFO
  EXPECT_EQ(young.content, withAge("0c 00 0c 00 02 00 00 00 00 00 00 00").content);
  EXPECT_EQ(young.content.size(), 28U);
  EXPECT_EQ(young.links, std::vector<uint32_t>{3});
}

// Also proves [routes-back].
TEST(NetlinkReader, MarksARouteThatTheKernelMakesItself) {
  const auto is = as<NetlinkMessage::RouteIs>(read(networkRoute));
  EXPECT_TRUE(is.kernelMade);
  EXPECT_FALSE(is.gateway);
}

TEST(NetlinkReader, MarksARouteThatARouterHasAnnounced) {
  for (const int protocol : {RTPROT_REDIRECT, RTPROT_RA}) {
    std::vector<std::byte> bytes(defaultRoute.span().begin(), defaultRoute.span().end());
    bytes[sizeof(nlmsghdr) + offsetof(rtmsg, rtm_protocol)] = static_cast<std::byte>(protocol);
    const auto messages = readNetlink(bytes);
    ASSERT_EQ(whyNot(messages), "");
    EXPECT_TRUE(std::get<NetlinkMessage::RouteIs>(messages->at(0).what).kernelMade);
  }
}

TEST(NetlinkReader, ReadsEveryLinkOfAMultipathRoute) {
  const auto is = as<NetlinkMessage::RouteIs>(read(multipathRoute));
  EXPECT_EQ(is.links, (std::vector<uint32_t>{3, 5}));
  EXPECT_TRUE(is.gateway);
}

TEST(NetlinkReader, ReadsTheKernelsRefusal) {
  const NetlinkMessage m = read(noSuchDevice);
  EXPECT_EQ(m.sequence, 7U);
  EXPECT_EQ(as<NetlinkMessage::Answered>(m).error, ENODEV);
}

TEST(NetlinkReader, ReadsTheEndOfADump) {
  const NetlinkMessage m = read(dumpDone);
  EXPECT_EQ(as<NetlinkMessage::Answered>(m).error, 0);
  EXPECT_FALSE(m.interrupted);
}

TEST(NetlinkReader, SaysThatADumpWasInterrupted) {
  NetlinkBytes bytes = dumpDone;
  bytes.bytes()[6] |= std::byte{0x10};  // NLM_F_DUMP_INTR
  EXPECT_TRUE(read(bytes).interrupted);
}

TEST(NetlinkReader, ReadsSeveralMessagesInOneDatagram) {
  NetlinkBytes bytes = addressAdded;
  const auto done = dumpDone.span();
  bytes.bytes().insert(bytes.bytes().end(), done.begin(), done.end());
  const auto messages = readNetlink(bytes.span());
  ASSERT_EQ(whyNot(messages), "");
  ASSERT_EQ(messages->size(), 2U);
  EXPECT_TRUE(std::holds_alternative<NetlinkMessage::AddressIs>(messages->at(0).what));
  EXPECT_TRUE(std::holds_alternative<NetlinkMessage::Answered>(messages->at(1).what));
}

struct Wrong {
  const char* reason;
  const NetlinkBytes* good;
  size_t at;  ///< this byte
  unsigned value;
};

const Wrong wrongBytes[] = {
    {"message length", &addressAdded, 0, 0x0f},          // shorter than its own header
    {"message length", &addressAdded, 0, 0x5c},          // longer than the datagram
    {"message length", &addressAdded, 3, 0x80},          // negative as a signed number
    {"address attribute length", &addressAdded, 24, 3},  // shorter than its own header
    {"address attribute length", &addressAdded, 25, 2},  // longer than the message
    {"address too short", &addressAdded, 24, 6},         // IFA_ADDRESS of two bytes
    {"address prefix length", &addressAdded, 17, 33},
    {"address attribute length", &ipv6AddressAdded, 24, 3},
    {"address too short", &ipv6AddressAdded, 24, 0x13},  // IFA_ADDRESS of 15 bytes
    {"address prefix length", &ipv6AddressAdded, 17, 129},
    {"link without an index", &linkDeleted, 20, 0},
    {"link without an index", &linkDeleted, 23, 0xff},    // negative
    {"link name", &linkWithCounters, 40, 0x31},           // no end: "wan01"
    {"link name", &linkWithCounters, 32, 4},              // empty
    {"link without a name", &linkWithCounters, 34, 9},    // another attribute instead
    {"link attribute length", &linkWithCounters, 61, 1},  // counters longer than the message
    {"route attribute length", &defaultRoute, 52, 9},
    {"number too short", &defaultRoute, 52, 5},   // RTA_OIF of one byte
    {"next hop length", &multipathRoute, 48, 7},  // shorter than its own header
    {"next hop length", &multipathRoute, 65, 1},  // longer than the attribute
    {"error number", &noSuchDevice, 19, 0x7f},    // positive
    {"error number", &noSuchDevice, 18, 0x7f},    // beyond every errno
};

// Promise: A malformed netlink message is refused as a whole, whatever its bytes, and nothing is
// read beyond its end.
TEST(NetlinkReader, RefusesWhatIsMalformed) {
  for (const Wrong& wrong : wrongBytes) {
    NetlinkBytes bytes = *wrong.good;
    bytes.bytes()[wrong.at] = static_cast<std::byte>(wrong.value);
    EXPECT_EQ(whyNot(readNetlink(bytes.span())), wrong.reason) << "at " << wrong.at;
  }
}

TEST(NetlinkReader, RefusesFixedPartsThatAreTooShort) {
  const std::pair<const NetlinkBytes*, const char*> shortened[] = {
      {&linkDeleted, "link message too short"},   {&addressAdded, "address message too short"},
      {&defaultRoute, "route message too short"}, {&noSuchDevice, "error message too short"},
      {&dumpDone, "end of dump too short"},
  };
  for (const auto& [good, expected] : shortened) {
    NetlinkBytes bytes = *good;
    bytes.bytes().resize(16);
    bytes.bytes()[0] = std::byte{16};
    EXPECT_EQ(whyNot(readNetlink(bytes.span())), expected);
  }
}

TEST(NetlinkReader, RefusesAnAddressMessageWithoutAnAddress) {
  const NetlinkBytes bytes{"18 00 00 00 14 00 00 00 00 00 00 00 00 00 00 00",
                           "02 18 80 00 03 00 00 00"};
  EXPECT_EQ(whyNot(readNetlink(bytes.span())), "address without an address");
}

TEST(NetlinkReader, RefusesAnEmptyDatagram) {
  EXPECT_EQ(whyNot(readNetlink({})), "empty datagram");
}

const NetlinkBytes* const captured[] = {
    &linkWithCounters, &linkDeleted,  &addressAdded, &peerAddressRemoved, &defaultRoute,
    &multipathRoute,   &noSuchDevice, &dumpDone,     &ipv6AddressAdded,   &ipv6PeerAddressAdded};

TEST(NetlinkReader, RefusesEveryTruncatedMessage) {
  for (const NetlinkBytes* whole : captured) {
    for (size_t length = 0; length < whole->span().size(); ++length) {
      // Its own buffer, so that the sanitizer sees every byte that is read beyond its end.
      const std::vector<std::byte> cut(whole->span().begin(),
                                       whole->span().begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_NE(whyNot(readNetlink(cut)), "") << length;
    }
  }
}

TEST(NetlinkReader, SurvivesRandomBytesInEveryPlace) {
  std::mt19937 random(45);  // the same bytes in every run
  for (int round = 0; round < 20000; ++round) {
    const NetlinkBytes* whole = captured[random() % std::size(captured)];
    std::vector<std::byte> bytes(whole->span().begin(), whole->span().end());
    for (auto changes = 1 + random() % 8; changes > 0; --changes) {
      bytes[random() % bytes.size()] = static_cast<std::byte>(random());
    }
    const auto messages = readNetlink(bytes);
    EXPECT_TRUE(messages || !messages.why().empty());
  }
}

}  // namespace
}  // namespace lumen
