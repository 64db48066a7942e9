#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "net/Address.h"

// Promise: An IPv4 address is read and written in dotted decimal: `10.0.0.1` is `10.0.0.1` again.
TEST(Address, ReadsAndWritesAddressesInNetworkByteOrder) {
  EXPECT_EQ(strtoip("10.0.0.1"), htonl(0x0A000001));
  EXPECT_EQ(iptostr(htonl(0x0A000001)), "10.0.0.1");
  EXPECT_EQ(iptostr(strtoip("10.0.0.1")), "10.0.0.1");
  EXPECT_EQ(iptostr(0), "0.0.0.0");
  EXPECT_EQ(iptostr(htonl(0xFF7F0A64)), "255.127.10.100");
}

// Promise: A text that is no address, the empty one too, reads as all ones.
TEST(Address, ReturnsAllOnesForTextThatIsNoAddress) {
  for (const char* text : {"", "x", "256.0.0.1", "1.2.3.4.5", "10.0.0.1x"}) {
    EXPECT_EQ(strtoip(text), 0xFFFFFFFF) << text;
  }
}

// Promise: Addresses are sorted, and logged as numbers, as a big-endian machine has them, on every
// machine: `10.0.0.1` is 167772161.
// Promise: The number in the `intr:` line is the address as a big-endian machine reads it:
// 3232258049 for 192.168.88.1.
TEST(Address, NumbersAnAddressAsABigEndianMachineDoes) {
  EXPECT_EQ(iptonumber(strtoip("10.0.0.1")), 167772161U);
  EXPECT_LT(iptonumber(strtoip("10.0.0.2")), iptonumber(strtoip("10.0.1.1")));
}
