#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <vector>

#include "net/Address.h"
#include "net/Sockets.h"
#include "platform/Fd.h"
#include "support/PrivateNetwork.h"

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

  static std::string logged(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
  }

  PrivateNetwork network;
  const uint32_t gatewayAddress = strtoip("10.0.0.1");
  lm::Fd discovery;
};
