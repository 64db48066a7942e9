#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"

namespace lm::service {
inline constexpr uint32_t web = 42;
}  // namespace lm::service

/// The status page, path [42, 0]. lm::cmd::get reads its settings and what it serves; lm::cmd::set
/// writes the settings that the request has.
namespace lm::web {

namespace key {
inline constexpr uint32_t enabled = 0x00000001;  ///< bool
inline constexpr uint32_t port = 0x08000002;     ///< u32: TCP port, 1 to 65535
/// string: the host names, with a blank between them, under which browsers may ask for the page
/// beside the router's addresses.
inline constexpr uint32_t names = 0x20000003;

// In the answer to get only.
inline constexpr uint32_t served = 0x20000010;   ///< string: "192.168.88.1:80 192.168.99.1:80"
inline constexpr uint32_t problem = 0x20000011;  ///< string: why it is not served; may be empty
}  // namespace key

inline constexpr uint32_t defaultPort = 80;

/// The path of the settings.
inline std::vector<uint32_t> path() { return {service::web, 0}; }

}  // namespace lm::web
