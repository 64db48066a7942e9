#pragma once

#include <cstdint>

/// Monitoring. Each message that passes is shown in a notification of lm::broker::cmd::monitor from
/// path [0, 0]; that notification itself is not shown. A request is shown on arrival and a reply on
/// departure, both with the requester's serial; a notification is shown once, regardless of its
/// subscribers. A party is identified by its service number (0: the broker itself) or, for a
/// program that is no service, by `anonymous` plus the number of its connection.
namespace lm::monitor {

namespace key {
inline constexpr uint32_t on = 0x00000001;       ///< bool, in the request
inline constexpr uint32_t message = 0x28000001;  ///< message: what passes, with its source
inline constexpr uint32_t from = 0x08000002;     ///< u32: the sender
inline constexpr uint32_t to = 0x08000003;       ///< u32: the receiver, or `subscribers`
/// bool: the message is too long or too deep to be shown completely; `message` has at most its
/// transport fields. Absent otherwise.
inline constexpr uint32_t cut = 0x00000004;
}  // namespace key

inline constexpr uint32_t anonymous = 0x10000;
inline constexpr uint32_t subscribers = 0xFFFFFFFF;  ///< of a notification, even if there are none

}  // namespace lm::monitor
