#pragma once

#include <cstdint>

/// Fields of the messages of the gateway daemon and of the services that define no keys of their
/// own.
namespace lumenctl {

/// A record of the interface table.
namespace interfacekey {
inline constexpr uint32_t hardwareType = 0x08010001;  ///< u32: 1 Ethernet
inline constexpr uint32_t index = 0x08010004;         ///< u32: the kernel's; 0: the link is away
inline constexpr uint32_t name = 0x20010005;          ///< string
inline constexpr uint32_t running = 0x0001000e;       ///< bool: up and with a carrier
inline constexpr uint32_t role = 0x08010010;  ///< u32: 1 external, 2 internal, of a kept name
inline constexpr uint32_t bytesReceived = 0x100100fc;    ///< u64, in the answer to readObject only
inline constexpr uint32_t bytesSent = 0x100100fd;        ///< u64
inline constexpr uint32_t packetsReceived = 0x100100fe;  ///< u64
inline constexpr uint32_t packetsSent = 0x100100ff;      ///< u64
}  // namespace interfacekey

/// A record of the address table, beside lm::key::objectId and lm::key::disabled.
namespace addresskey {
inline constexpr uint32_t address = 0x08000001;      ///< be32
inline constexpr uint32_t interfaceId = 0x08000005;  ///< u32
}  // namespace addresskey

/// An interface object of the gateway, beside lm::key::objectId and lm::key::disabled.
namespace gatewaykey {
inline constexpr uint32_t interface = 0x08000001;  ///< u32: interface id
inline constexpr uint32_t type = 0x08000002;       ///< u32: 1 external, 2 internal
}  // namespace gatewaykey

/// The gateway's settings.
namespace settingskey {
inline constexpr uint32_t enabled = 1;               ///< bool
inline constexpr uint32_t allowDisableExternal = 2;  ///< bool
inline constexpr uint32_t showDummyRule = 3;         ///< bool
}  // namespace settingskey

namespace identitykey {
inline constexpr uint32_t text = 0x20000001;  ///< string
}  // namespace identitykey

}  // namespace lumenctl
