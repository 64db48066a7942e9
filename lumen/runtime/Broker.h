#pragma once

#include <cstdint>

#include "platform/Keys.h"
#include "platform/message.h"

/// Commands and fields of path [0], the broker itself, between the runtime library and lumend.
namespace lm::broker {

inline constexpr uint32_t registerServices = 0x10;
inline constexpr uint32_t subscribe = 0x11;
inline constexpr uint32_t unsubscribe = 0x12;
inline constexpr uint32_t unregisterServices = 0x13;
/// A notification: the request with the serial in it is not waited for any longer.
inline constexpr uint32_t cancel = 0x16;

inline constexpr uint32_t services = 0x88000001;      ///< u32 array
inline constexpr uint32_t topicCommand = 0x08000001;  ///< u32
inline constexpr uint32_t topicSource = 0x88000002;   ///< u32 array

/// Whether `m` is the broker's word that a request which it sent here has been cancelled.
[[nodiscard]] inline bool isCancellation(const message& m) {
  return !m.has_array(key::destination) && m.get_u32(key::command) == cancel &&
         m.get_u32_array_ref(key::source) == std::vector<uint32_t>{service::broker, 0};
}

}  // namespace lm::broker
