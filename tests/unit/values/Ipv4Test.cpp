#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>

#include "lumen/values/Ipv4.h"

namespace lumen {
namespace {

TEST(Ipv4AddressTest, HasTheBytesOfASocketAddress) {
  const uint8_t bytes[] = {45, 46, 47, 1};
  in_addr address;
  memcpy(&address, bytes, sizeof bytes);
  EXPECT_EQ(Ipv4Address(45, 46, 47, 1).bytes(), address.s_addr);
  EXPECT_EQ(Ipv4Address::fromBytes(address.s_addr), Ipv4Address(45, 46, 47, 1));
  EXPECT_EQ(Ipv4Address(45, 46, 47, 1).number(), 0x2d2e2f01U);
}

TEST(Ipv4AddressTest, IsWrittenAsItIsRead) {
  for (const char* text : {"0.0.0.0", "45.45.45.1", "192.168.88.10", "255.255.255.255"}) {
    const std::optional<Ipv4Address> address = Ipv4Address::parse(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(address->text(), text);
  }
}

TEST(Ipv4AddressTest, IsReadFromNoOtherText) {
  for (const char* text :
       {"", "1", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4.5", "1.2.3.256", "1.2.3.04", "1.2.3.-4",
        "+1.2.3.4", " 1.2.3.4", "1.2.3.4 ", "0x1.2.3.4", "1..2.3", "1.2.3.99999999999"}) {
    EXPECT_FALSE(Ipv4Address::parse(text)) << text;
  }
}

TEST(Ipv4AddressTest, IsOrderedByItsNumber) {
  EXPECT_LT(Ipv4Address(9, 0, 0, 255), Ipv4Address(10, 0, 0, 1));
  EXPECT_LT(Ipv4Address(10, 0, 0, 1), Ipv4Address(10, 0, 1, 0));
  EXPECT_TRUE(Ipv4Address().isUnspecified());
  EXPECT_FALSE(Ipv4Address(0, 0, 0, 1).isUnspecified());
}

TEST(Ipv4NetworkTest, HoldsTheAddressesThatShareItsPrefix) {
  const Ipv4Network network(Ipv4Address(192, 168, 88, 77), 24);
  EXPECT_EQ(network.first(), Ipv4Address(192, 168, 88, 0));
  EXPECT_EQ(network.last(), Ipv4Address(192, 168, 88, 255));
  EXPECT_TRUE(network.holds(Ipv4Address(192, 168, 88, 255)));
  EXPECT_FALSE(network.holds(Ipv4Address(192, 168, 89, 0)));
  EXPECT_TRUE(Ipv4Network().holds(Ipv4Address(255, 255, 255, 255)));
  EXPECT_EQ(Ipv4Network().last(), Ipv4Address(255, 255, 255, 255));
  const Ipv4Network one(Ipv4Address(10, 0, 0, 1), 32);
  EXPECT_TRUE(one.holds(Ipv4Address(10, 0, 0, 1)));
  EXPECT_FALSE(one.holds(Ipv4Address(10, 0, 0, 0)));
}

TEST(Ipv4NetworkTest, IsWrittenAsItIsRead) {
  for (const char* text : {"0.0.0.0/0", "192.168.88.0/24", "10.0.0.1/32"}) {
    const std::optional<Ipv4Network> network = Ipv4Network::parse(text);
    ASSERT_TRUE(network) << text;
    EXPECT_EQ(network->text(), text);
  }
  EXPECT_EQ(Ipv4Network::parse("10.0.0.1"), Ipv4Network(Ipv4Address(10, 0, 0, 1), 32));
}

TEST(Ipv4NetworkTest, IsReadFromNoOtherText) {
  for (const char* text : {"", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/024", "10.0.0/8",
                           "10.0.0.0/8 ", "10.0.0.0/8/8", "/8"}) {
    EXPECT_FALSE(Ipv4Network::parse(text)) << text;
  }
}

TEST(EndpointTest, IsAnAddressAndAPort) {
  EXPECT_EQ((Endpoint{Ipv4Address(45, 45, 45, 1), 8080}).text(), "45.45.45.1:8080");
}

}  // namespace
}  // namespace lumen
