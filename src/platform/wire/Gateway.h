#pragma once

#include <cstdint>

/// The gateway daemon, path [40, 0]: its settings, for lm::cmd::get and set, and its objects, one
/// for each configured interface.
namespace lm::gateway {

/// An object, in addition to lm::key::objectId and lm::key::disabled.
namespace key {
inline constexpr uint32_t interface = 0x08000001;  ///< u32: interface id
inline constexpr uint32_t type = 0x08000002;       ///< u32: 1 external, 2 internal
}  // namespace key

namespace settings {
inline constexpr uint32_t enabled = 1;               ///< bool
inline constexpr uint32_t allowDisableExternal = 2;  ///< bool
inline constexpr uint32_t showDummyRule = 3;         ///< bool
}  // namespace settings

}  // namespace lm::gateway
