#pragma once

#include <cstdint>
#include <string>
#include <tuple>

/// The key of a port mapping, ordered by port, then TCP before UDP.
struct Id {
  static constexpr uint32_t tcp = 0;
  static constexpr uint32_t udp = 1;

  uint32_t externalPort = 0;  ///< 0 to 65535
  uint32_t protocol = tcp;

  friend bool operator<(const Id& a, const Id& b) {
    return std::tie(a.externalPort, a.protocol) < std::tie(b.externalPort, b.protocol);
  }
};

/// A port mapping: the destination of traffic to an external port. Its NAT rule exists as long as
/// it does.
struct PortMap {
  uint16_t internalPort = 0;
  bool enabled = false;
  uint32_t internalClient = 0;  ///< IPv4 address, network byte order
  uint32_t leaseDuration = 0;   ///< always 0: permanent leases only
  uint32_t ruleId = 0;          ///< object id of its rule in the NAT rule table
  std::string description;
};
