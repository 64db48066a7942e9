#pragma once

#include <cstdint>

/// Fields of the messages of the gateway daemon and of the services that define no keys of their
/// own.
namespace lumenctl {

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

namespace resolvercmd {
inline constexpr uint32_t resolve = 3;
}  // namespace resolvercmd

namespace resolverkey {
inline constexpr uint32_t name = 0x20000003;     ///< string: host name, in the request
inline constexpr uint32_t address = 0x08000004;  ///< be32, in the reply
}  // namespace resolverkey

namespace identitykey {
inline constexpr uint32_t text = 0x20000001;  ///< string
}  // namespace identitykey

}  // namespace lumenctl
