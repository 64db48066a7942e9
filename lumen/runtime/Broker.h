#pragma once

#include <cstdint>

/// Commands and fields of path [0], the broker itself, between the runtime library and lumend.
namespace lm::broker {

inline constexpr uint32_t registerServices = 0x10;
inline constexpr uint32_t subscribe = 0x11;
inline constexpr uint32_t unsubscribe = 0x12;
inline constexpr uint32_t unregisterServices = 0x13;

inline constexpr uint32_t services = 0x88000001;      ///< u32 array
inline constexpr uint32_t topicCommand = 0x08000001;  ///< u32
inline constexpr uint32_t topicSource = 0x88000002;   ///< u32 array

}  // namespace lm::broker
