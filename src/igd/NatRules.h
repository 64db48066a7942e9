#pragma once

#include <cstdint>

#include "igd/PortMap.h"
#include "platform/message.h"

/// The rules of port mappings in the platform's NAT rule table. Each call is one exchange of at
/// most six seconds and returns the reply: an error reply when the table refused, or when it did
/// not answer in time; the platform then undoes a late change.
namespace nat {

/// Forwards what arrives for `externalIP` (network byte order) at the port of `id` to the mapping's
/// internal client, unless the mapping is disabled. The reply contains the rule's object id. The
/// rule ends with this program.
[[nodiscard]] lm::message addRule(const Id& id, const PortMap& mapping, uint32_t externalIP);

/// Updates the rule of `mapping` with its internal client, internal port and enabled flag.
[[nodiscard]] lm::message setRule(const PortMap& mapping);

[[nodiscard]] lm::message removeRule(const PortMap& mapping);

/// Does the same for a mapping that is forgotten regardless of the reply: a removal not answered in
/// time is still carried out.
[[nodiscard]] lm::message forgetRule(const PortMap& mapping);

}  // namespace nat
