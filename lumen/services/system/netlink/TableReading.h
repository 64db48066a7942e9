#pragma once

#include <cstdint>
#include <vector>

#include "lumen/services/system/netlink/Links.h"
#include "lumen/services/system/netlink/NetlinkReader.h"

namespace lumen {

/// Merges the kernel's tables from its answers and from the changes that it reports meanwhile,
/// which share a socket.
///
/// An answer lists what was there when the kernel wrote it, which can be before a change that it
/// reported before it sent the answer. A reported change therefore overrides every answer; anything
/// without a reported change is there if any answer lists it.
class TableReading {
 public:
  /// `port`: of the socket.
  explicit TableReading(uint32_t port) : port_(port) {}

  /// A message that arrived on the socket after the request with sequence number `request`.
  void take(NetlinkMessage& message, uint32_t request);

  /// Whether the removal of an address was reported. The kernel lists addresses by position: it may
  /// then have skipped another one without noticing.
  [[nodiscard]] bool lostAddress() const;

  /// The tables after all reported changes.
  [[nodiscard]] LinkSnapshot finish();

 private:
  const uint32_t port_;
  LinkSnapshot all_;
  std::vector<NetlinkMessage> reported_;
};

}  // namespace lumen
