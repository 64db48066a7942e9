#pragma once

#include <memory>

#include "lumen/services/system/netfilter/Ipv6Flows.h"

namespace lumen {

/// The flows of the network namespace in which a call is made, over ctnetlink.
class NetlinkIpv6Flows : public Ipv6Flows {
 public:
  NetlinkIpv6Flows();
  NetlinkIpv6Flows(const NetlinkIpv6Flows&) = delete;
  NetlinkIpv6Flows& operator=(const NetlinkIpv6Flows&) = delete;
  /// Ends a sweep that is under way, without notifying its sweeper.
  ~NetlinkIpv6Flows() override;

  void sweepUdp(uint32_t label, Sweeper& sweeper) override;

 private:
  class Sweep;
  std::unique_ptr<Sweep> sweep_;  // null: none under way
};

}  // namespace lumen
