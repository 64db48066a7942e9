#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"

/// Field keys of the address table, handler [20, 1], besides those that every table shares.
///
/// Every caller that may ask reads: lm::cmd::list and readAll (paged), readObject.
///
/// A record: lm::key::objectId, interface, address, lm::key::disabled (the interface is not
/// running); in the notification of a removed one disabled is false and lm::key::removed follows.
namespace lm::addresses {

namespace key {
inline constexpr uint32_t interface = 0x08000005;  ///< u32: id of the interface that holds it
inline constexpr uint32_t address = 0x08000001;    ///< be32

/// u32: the same, where `interface` is absent.
inline constexpr uint32_t otherInterface = 0x0800000a;
}  // namespace key

/// Where the table is.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::addresses}; }

}  // namespace lm::addresses
