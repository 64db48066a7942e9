#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "net/Address.h"
#include "ssdp/Datagram.h"
#include "ssdp/SsdpNetwork.h"

/// A LAN whose hosts do not answer when they are asked for their hardware addresses: what is sent
/// to them stays in the socket's buffer for seconds.
class SilentLan : public SsdpNetwork {
 protected:
  SilentLan() {
    static const bool made =
        system(
            "ip link add silent0 type veth peer name silent1 && ip link set silent1 up && "
            "ip addr add 10.9.0.1/24 dev silent0 && ip link set silent0 up") == 0;
    EXPECT_TRUE(made);
    host.sin_family = AF_INET;
    host.sin_port = htons(1900);
    host.sin_addr.s_addr = strtoip("10.9.0.2");
  }

  sockaddr_in host = {};
};

// Promise: A full send buffer is not waited for.
// Promise: A host that does not answer ARP delays no other: a reply is sent without waiting for a
// full buffer.
TEST_F(SilentLan, IsNotWaitedForWhenTheBufferIsFull) {
  const lm::Fd socket(makeUdpSocket("silent0"));
  const int smallest = 0;
  ASSERT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
  const HTTPMessage message(HTTP_OK);
  int sent = 0;
  int error = 0;
  while (sent < 20) {
    error = sendDatagram(socket.get(), message, host);
    if (error != 0) break;
    ++sent;
  }
  EXPECT_EQ(error, EAGAIN);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 20);
}
