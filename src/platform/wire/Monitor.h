#pragma once

#include <cstdint>

/// Monitoring. What passes is shown in a notification of lm::broker::cmd::monitor from path [0, 0],
/// which is not shown to anybody in turn. A request is shown when it arrives and a reply when it
/// leaves, both with the requester's serial; a notification once, whoever subscribed to it. A
/// number of somebody is a service number, 0 the broker itself, or for a program that is no service
/// `anonymous` and the number of its connection.
namespace lm::monitor {

namespace key {
inline constexpr uint32_t on = 0x00000001;       ///< bool, in the request
inline constexpr uint32_t message = 0x28000001;  ///< message: what passes, source written
inline constexpr uint32_t from = 0x08000002;     ///< u32: who sends it
inline constexpr uint32_t to = 0x08000003;       ///< u32: who gets it, or everybody
/// bool: what passes is too long or too deep to be shown whole; `message` has at most its transport
/// fields. Absent otherwise.
inline constexpr uint32_t cut = 0x00000004;
}  // namespace key

inline constexpr uint32_t anonymous = 0x10000;
inline constexpr uint32_t everybody = 0xFFFFFFFF;  ///< a notification's, even if nobody subscribed

}  // namespace lm::monitor
