#pragma once

#include <cstdint>
#include <vector>

#include "lumen/services/system/netlink/Links.h"
#include "lumen/services/system/netlink/NetlinkReader.h"

namespace lumen {

/// Puts the kernel's tables together from its answers and the changes that it tells meanwhile,
/// which share a socket.
///
/// An answer lists what was there when the kernel wrote it, which can be before a change that it
/// told earlier than it sent the answer. What it told therefore counts more than any answer; what
/// it told nothing of has not changed, and is there if any answer lists it.
class TableReading {
 public:
  /// `port`: of the socket.
  explicit TableReading(uint32_t port) : port_(port) {}

  /// A message that came by the socket since it asked with the sequence number `request`.
  void take(NetlinkMessage& message, uint32_t request);

  /// Whether an address was told to be gone. The kernel counts addresses while it lists them: then
  /// it can have skipped another one without noticing.
  [[nodiscard]] bool lostAddress() const;

  /// The tables as they are after all that was told.
  [[nodiscard]] LinkSnapshot finish();

 private:
  const uint32_t port_;
  LinkSnapshot all_;
  std::vector<NetlinkMessage> told_;
};

}  // namespace lumen
