#pragma once

#include <cstdint>

/// The broker's own commands, at path [0], and the fields of their requests and replies.
namespace lumen {

namespace brokercmd {
/// Requests to brokerkey::services come to this connection from now on.
inline constexpr uint32_t registerServices = 0x10;
/// Notifications brokerkey::command from path brokerkey::path come to this connection, or no more.
inline constexpr uint32_t subscribe = 0x11;
inline constexpr uint32_t unsubscribe = 0x12;
/// From the answer on, requests to brokerkey::services wait for the service's next start.
inline constexpr uint32_t unregisterServices = 0x13;
/// Every service that has a service file, in rising order of number: one message in
/// lm::key::records for each, all in one reply, with the fields of servicekey.
inline constexpr uint32_t services = 0x14;
}  // namespace brokercmd

namespace brokerkey {
inline constexpr uint32_t services = 0x88000001;  ///< u32 array: service numbers
inline constexpr uint32_t command = 0x08000001;   ///< u32: the command of a notification
inline constexpr uint32_t path = 0x88000002;      ///< u32 array: the source of a notification
}  // namespace brokerkey

/// A record of the list of services.
namespace servicekey {
inline constexpr uint32_t number = 0x08fe0001;    ///< u32: service number
inline constexpr uint32_t name = 0x20010005;      ///< string, as in the service file
inline constexpr uint32_t state = 0x20000001;     ///< string: one of servicestate
inline constexpr uint32_t pid = 0x08000002;       ///< u32: 0 when there is no process
inline constexpr uint32_t restarts = 0x08000003;  ///< u32: starts after a crash, since lumend began
inline constexpr uint32_t nextStart = 0x10000004;  ///< u64: milliseconds from now; 0: none planned
}  // namespace servicekey

namespace servicestate {
inline constexpr const char* stopped = "stopped";    ///< not needed now; a request starts it
inline constexpr const char* starting = "starting";  ///< has a process that has not registered yet
inline constexpr const char* running = "running";    ///< registered
inline constexpr const char* leaving =
    "leaving";  ///< has unregistered, its process is about to end
inline constexpr const char* waiting = "waiting";  ///< crashed; starts again at nextStart
}  // namespace servicestate

}  // namespace lumen
