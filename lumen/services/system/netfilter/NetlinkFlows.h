#pragma once

#include <memory>

#include "lumen/services/system/netfilter/Flows.h"

namespace lumen {

/// The flows of the network namespace in which a call is made, over ctnetlink.
class NetlinkFlows : public Flows {
 public:
  NetlinkFlows();
  NetlinkFlows(const NetlinkFlows&) = delete;
  NetlinkFlows& operator=(const NetlinkFlows&) = delete;
  /// Ends a sweep that is under way, without notifying its sweeper.
  ~NetlinkFlows() override;

  void sweepUdp(const std::set<Endpoint>& destinations, Sweeper& sweeper) override;
  bool visitTranslated(const std::function<void(const Flow&)>& visit) override;

 private:
  class Sweep;
  std::unique_ptr<Sweep> sweep_;  // null: none under way
};

}  // namespace lumen
