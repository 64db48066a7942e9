#pragma once

#include <memory>

#include "lumen/services/system/netfilter/Flows.h"

namespace lumen {

/// The flows of the network namespace in which a call is made, over ctnetlink.
///
/// Reading them walks the kernel's whole table, which costs milliseconds even when it is empty. The
/// kernel applies the filters that it can, and gives back control after each buffer of results.
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
