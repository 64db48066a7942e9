#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"

/// The platform's tables that the gateway follows: their paths and the fields of their records.

namespace interface_table {
inline const std::vector<uint32_t> path = {lm::service::interfaces, lm::handler::interfaces};

inline constexpr uint32_t flags = 0x08010003;        ///< u32
inline constexpr uint32_t index = 0x08010004;        ///< u32: the kernel's
inline constexpr uint32_t name = 0x20010005;         ///< string: for sockets
inline constexpr uint32_t displayName = 0x20010006;  ///< string: for people
inline constexpr uint32_t running = 0x0001000e;      ///< bool

/// Any of these in `flags`: the interface is gone.
inline constexpr uint32_t goneFlags = 0x82;
}  // namespace interface_table

namespace address_table {
inline const std::vector<uint32_t> path = {lm::service::interfaces, lm::handler::addresses};

inline constexpr uint32_t address = 0x08000001;         ///< be32
inline constexpr uint32_t interface = 0x08000005;       ///< u32: interface id
inline constexpr uint32_t otherInterface = 0x0800000a;  ///< u32: the same, where that is absent
}  // namespace address_table
