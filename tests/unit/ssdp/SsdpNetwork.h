#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "net/Address.h"
#include "net/Sockets.h"
#include "platform/Fd.h"
#include "support/Logged.h"
#include "support/PrivateNetwork.h"

using lm::test::logged;

/// A LAN on which the gateway is 10.0.0.1, with its discovery socket.
class SsdpNetwork : public testing::Test {
 protected:
  SsdpNetwork() : discovery(makeDiscoverySocket("lo", if_nametoindex("lo"), gatewayAddress)) {}

  /// Every datagram that waits at `fd`.
  static std::vector<std::string> datagramsAt(const lm::Fd& fd) {
    std::vector<std::string> datagrams;
    std::array<char, 65536> bytes;
    while (true) {
      const ssize_t size = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (size < 0) return datagrams;
      datagrams.emplace_back(bytes.data(), static_cast<size_t>(size));
    }
  }

  /// The port from which the datagram that waits at `fd` was sent, in host byte order.
  static uint16_t senderPortAt(const lm::Fd& fd) {
    std::array<char, 2048> bytes;
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    EXPECT_GT(recvfrom(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                       reinterpret_cast<sockaddr*>(&sender), &length),
              0);
    return ntohs(sender.sin_port);
  }

  PrivateNetwork network;
  const uint32_t gatewayAddress = strtoip("10.0.0.1");
  lm::Fd discovery;
};
