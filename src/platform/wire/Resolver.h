#pragma once

#include <cstdint>

/// The resolver, path [14]: host names to addresses.
namespace lm::resolver {

namespace cmd {
inline constexpr uint32_t resolve = 3;
}  // namespace cmd

namespace key {
inline constexpr uint32_t hostName = 0x20000003;  ///< string, in the request
inline constexpr uint32_t address = 0x08000004;   ///< be32, in the reply
}  // namespace key

}  // namespace lm::resolver
