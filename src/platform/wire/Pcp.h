#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"

namespace lm::service {
inline constexpr uint32_t pcp = 41;
}  // namespace lm::service

/// The program that opens ports for NAT-PMP and PCP, path [41, 0]. lm::cmd::get reads its settings
/// and what it serves; lm::cmd::set writes the settings that the request has.
namespace lm::pcp {

namespace key {
inline constexpr uint32_t enabled = 0x00000001;  ///< bool
/// string: the addresses, with a blank between them, of the hosts that may ask for other hosts; by
/// IPv6 for other hosts of IPv6.
inline constexpr uint32_t agents = 0x20000002;

// In the answer to get only.
inline constexpr uint32_t served = 0x20000010;    ///< string: "br-lan br-guest"
inline constexpr uint32_t problem = 0x20000011;   ///< string: why it is not served; may be empty
inline constexpr uint32_t mappings = 0x08000012;  ///< u32: how many there are
inline constexpr uint32_t pinholes = 0x08000013;  ///< u32: mappings of IPv6 hosts, beside those
}  // namespace key

/// The path of the settings.
inline std::vector<uint32_t> path() { return {service::pcp, 0}; }

}  // namespace lm::pcp
