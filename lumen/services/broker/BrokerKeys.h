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
/// monitorkey::on: from the answer on, each message that passes the broker comes to this connection
/// as well, or no more. Administrators only.
inline constexpr uint32_t monitor = 0x15;
/// A notification to the broker: its sender does not wait any longer for the reply to the request
/// with the serial lm::key::serial. When that is not carried out yet, it is dropped, else undone,
/// unless the sender has sent another request meanwhile: then it had its answer. The broker's own
/// commands stay. From path [0, 0] it tells a service the same about a request that was sent there,
/// with the serial that it had there.
inline constexpr uint32_t cancel = 0x16;
}  // namespace brokercmd

namespace brokerkey {
inline constexpr uint32_t services = 0x88000001;  ///< u32 array: service numbers
inline constexpr uint32_t command = 0x08000001;   ///< u32: the command of a notification
inline constexpr uint32_t path = 0x88000002;      ///< u32 array: the source of a notification
}  // namespace brokerkey

/// Monitoring. What passes is shown in a notification of brokercmd::monitor from path [0, 0], which
/// is not shown to anybody in turn. A request is shown when it arrives and a reply when it leaves,
/// both with the requester's serial; a notification once, whoever subscribed to it. A number of
/// somebody is a service number, 0 the broker itself, or for a program that is no service
/// `anonymous` and the number of its connection.
namespace monitorkey {
inline constexpr uint32_t on = 0x00000001;       ///< bool, in the request
inline constexpr uint32_t message = 0x28000001;  ///< message: what passes, source written
inline constexpr uint32_t from = 0x08000002;     ///< u32: who sends it
inline constexpr uint32_t to = 0x08000003;       ///< u32: who gets it, or monitor::everybody
/// bool: what passes is too long or too deep to be shown whole; `message` has at most its transport
/// fields. Absent otherwise.
inline constexpr uint32_t cut = 0x00000004;
}  // namespace monitorkey

namespace monitor {
inline constexpr uint32_t anonymous = 0x10000;
inline constexpr uint32_t everybody = 0xFFFFFFFF;  ///< a notification's, even if nobody subscribed
}  // namespace monitor

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
