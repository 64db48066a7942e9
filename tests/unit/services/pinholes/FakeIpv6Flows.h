#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "lumen/services/system/netfilter/Ipv6Flows.h"

namespace lumen::test {

/// Flows with the label of pinholes that a test lists. A sweep ends when the test decides.
class FakeIpv6Flows : public Ipv6Flows {
 public:
  void sweepUdp(uint32_t label, Sweeper& sweeper) override {
    labels.push_back(label);
    sweeper_ = &sweeper;
  }

  /// Judges the flows of the sweep that is under way, which is over then.
  void finishSweep() {
    std::erase_if(flows, [this](const Ipv6Flow& flow) { return sweeper_->ends(flow); });
    std::exchange(sweeper_, nullptr)->swept(true);
  }
  /// The sweep that is under way ends by an error, having judged nothing.
  void failSweep() { std::exchange(sweeper_, nullptr)->swept(false); }

  [[nodiscard]] bool sweeping() const { return sweeper_ != nullptr; }

  std::vector<Ipv6Flow> flows;
  std::vector<uint32_t> labels;  // what each sweep was asked for

 private:
  Sweeper* sweeper_ = nullptr;
};

}  // namespace lumen::test
