#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"
#include "platform/message.h"

/// Path [0], the broker itself: commands, and the fields of their requests and replies.
namespace lm::broker {

namespace cmd {
/// From now on, requests to key::services come to this connection.
inline constexpr uint32_t registerServices = 0x10;
/// Notifications key::topicCommand from path key::topicSource come to this connection, or no longer
/// do.
inline constexpr uint32_t subscribe = 0x11;
inline constexpr uint32_t unsubscribe = 0x12;
/// After the reply, requests to key::services wait for the service's next start.
inline constexpr uint32_t unregisterServices = 0x13;
/// Every service with a service file, in increasing order of number: one message in
/// lm::key::records for each, all in one reply, with the fields of `listed`. For administrators and
/// services that may read; lm::cmd::changed from path [0, 0] notifies them, without fields, when a
/// program has registered, unregistered or ended. The reply has key::residentMemory of lumend.
inline constexpr uint32_t services = 0x14;
/// lm::monitor::key::on: after the reply, each message that passes the broker also comes to this
/// connection, or no longer does. Administrators only.
inline constexpr uint32_t monitor = 0x15;
/// A notification to the broker: its sender has stopped waiting for the reply to the request with
/// the serial lm::key::serial. If the request has not been carried out yet, it is dropped;
/// otherwise it is undone, unless the sender has sent another request since, which means that it
/// had received the reply. The broker's own commands are not undone. From path [0, 0], this
/// notifies a service of the same about a request that was sent to it, with the serial under which
/// it arrived there.
inline constexpr uint32_t cancel = 0x16;
}  // namespace cmd

namespace key {
inline constexpr uint32_t services = 0x88000001;      ///< u32 array: service numbers
inline constexpr uint32_t topicCommand = 0x08000001;  ///< u32: the command of a notification
inline constexpr uint32_t topicSource = 0x88000002;   ///< u32 array: the source of a notification
/// u64: bytes of physical memory that a program uses; 0: not known, or it has no process
inline constexpr uint32_t residentMemory = 0x10000005;
}  // namespace key

/// A record of the list of services.
namespace listed {
inline constexpr uint32_t number = 0x08fe0001;     ///< u32: service number
inline constexpr uint32_t name = 0x20010005;       ///< string, as in the service file
inline constexpr uint32_t state = 0x20000001;      ///< string: one of `state`
inline constexpr uint32_t pid = 0x08000002;        ///< u32: 0 when there is no process
inline constexpr uint32_t restarts = 0x08000003;   ///< u32: after crashes, since lumend started
inline constexpr uint32_t nextStart = 0x10000004;  ///< u64: milliseconds from now; 0: none planned
inline constexpr uint32_t residentMemory = key::residentMemory;
inline constexpr uint32_t program = 0x20000006;  ///< string: the file name of its executable
}  // namespace listed

namespace state {
inline constexpr const char* stopped = "stopped";    ///< not needed now; a request starts it
inline constexpr const char* starting = "starting";  ///< has a process that has not registered yet
inline constexpr const char* running = "running";    ///< registered
inline constexpr const char* leaving =
    "leaving";  ///< has unregistered, its process is about to end
inline constexpr const char* waiting = "waiting";  ///< crashed; starts again at nextStart
}  // namespace state

/// Whether `m` is the broker's notification that a request sent here has been cancelled.
[[nodiscard]] inline bool isCancellation(const message& m) {
  return !m.has_array(lm::key::destination) && m.get_u32(lm::key::command) == cmd::cancel &&
         m.get_u32_array_ref(lm::key::source) == std::vector<uint32_t>{service::broker, 0};
}

}  // namespace lm::broker
