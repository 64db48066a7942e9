#pragma once

#include <set>
#include <string>
#include <utility>

#include "lumen/services/system/netfilter/Flows.h"

namespace lumen {

/// The UDP ports through which flows may go, for the next lumend to know should this one be killed:
/// the kernel takes the NAT table away then, but a flow that it has translated once goes on as soon
/// as any program loads a table of NAT. An empty file for each port, named like "45.45.45.1:5060".
class FlowMarks {
 public:
  /// `folder` must exist, and need not outlive the kernel.
  explicit FlowMarks(std::string folder) : folder_(std::move(folder)) {}

  /// All that are set, by an earlier life too. A file of another name is none.
  [[nodiscard]] std::set<Endpoint> all() const;

  /// A failure is in the log.
  void set(const Endpoint& external) const;
  void clear(const Endpoint& external) const;

 private:
  [[nodiscard]] std::string fileOf(const Endpoint& external) const;

  std::string folder_;
};

}  // namespace lumen
