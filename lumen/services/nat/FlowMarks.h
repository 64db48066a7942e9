#pragma once

#include <set>
#include <string>
#include <utility>

#include "lumen/services/system/netfilter/Flows.h"

namespace lumen {

/// Persists which UDP ports may have flows, so that the next lumend can end these if this one is
/// killed: the kernel then removes the NAT table, but a flow that it once translated continues as
/// soon as any program loads a NAT table. An empty file for each port, named like
/// "45.45.45.1:5060".
class FlowMarks {
 public:
  /// `folder` must exist; it need not survive a reboot.
  explicit FlowMarks(std::string folder) : folder_(std::move(folder)) {}

  /// All marked ports, those of an earlier lumend too. Files with other names are ignored.
  [[nodiscard]] std::set<Endpoint> all() const;

  // Failures are logged.

  void set(const Endpoint& external) const;
  void clear(const Endpoint& external) const;

 private:
  [[nodiscard]] std::string fileOf(const Endpoint& external) const;

  std::string folder_;
};

}  // namespace lumen
