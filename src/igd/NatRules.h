#pragma once

#include <cstdint>

#include "igd/PortMap.h"
#include "platform/message.h"

/// The rules behind port mappings, in the platform's NAT rule table. Each call is one exchange, of
/// at most six seconds, and returns the reply: an error reply when the table refused, or when it
/// did not answer in time, and then the table is as it was once it has caught up.
namespace nat {

/// Sends what arrives for `externalIP` (network byte order) at the port of `id` to the mapping's
/// internal client, unless the mapping is disabled. The reply has the rule's object id. The rule
/// goes when this program does.
[[nodiscard]] lm::message addRule(const Id& id, const PortMap& mapping, uint32_t externalIP);

/// Gives the rule of `mapping` its internal client and port and its enabled flag anew.
[[nodiscard]] lm::message setRule(const PortMap& mapping);

[[nodiscard]] lm::message removeRule(const PortMap& mapping);

/// The same for a mapping that is forgotten whatever the reply: a removal that is not answered in
/// time is done later.
[[nodiscard]] lm::message forgetRule(const PortMap& mapping);

}  // namespace nat
