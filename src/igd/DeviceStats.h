#pragma once

#include <cstdint>

/// The traffic counters of an interface since it was made, modulo 2^32.
struct DeviceStats {
  uint32_t packetsReceived = 0;
  uint32_t packetsSent = 0;
  uint32_t bytesReceived = 0;
  uint32_t bytesSent = 0;
};

/// Asks the platform for the counters of the interface with this object id: one exchange, of at
/// most six seconds. What the answer lacks is 0; all 0, and a line in the log, when there is none.
[[nodiscard]] DeviceStats getDeviceStats(uint32_t interfaceId);
