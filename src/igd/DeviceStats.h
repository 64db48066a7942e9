#pragma once

#include <cstdint>

/// The traffic counters of an interface since its creation, modulo 2^32.
struct DeviceStats {
  uint32_t packetsReceived = 0;
  uint32_t packetsSent = 0;
  uint32_t bytesReceived = 0;
  uint32_t bytesSent = 0;
};

/// Reads the counters of the interface with this object id from the platform: one exchange of at
/// most six seconds. A counter missing from the reply is 0; without a reply all are 0, which is
/// logged.
[[nodiscard]] DeviceStats getDeviceStats(uint32_t interfaceId);
