#pragma once

namespace lumen {

/// Whether this machine forwards IPv6 packets.
class Ipv6Forwarding {
 public:
  virtual ~Ipv6Forwarding() = default;
  [[nodiscard]] virtual bool isOn() = 0;
};

/// The kernel's own setting for all interfaces, net.ipv6.conf.all.forwarding; without it, no
/// interface forwards.
class NetlinkIpv6Forwarding : public Ipv6Forwarding {
 public:
  /// A kernel that cannot be asked, or has no IPv6, forwards nothing.
  [[nodiscard]] bool isOn() override;
};

}  // namespace lumen
