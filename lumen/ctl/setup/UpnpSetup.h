#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/Session.h"

namespace lumenctl {

/// Whether an interface may be named that does not exist now.
enum class Missing { refused, allowed };

/// Whether programs on the LAN may take the external interface down and up: for a new gateway not,
/// for one that is set up already as before; or in any case.
enum class Disconnect { asBefore, allowed };

/// Makes this router an Internet gateway for the hosts on the interfaces `internal`, with
/// `external` towards the Internet, and switches the gateway on. Interfaces that are not named are
/// removed from it. What is already set up is left alone, so that nothing restarts needlessly.
///
/// Throws before the first change: WrongUsage when an interface is named twice, Refused when one
/// does not exist now, unless `missing` allows that. An interface that is away has no hosts, and
/// those of the interface that it would replace lose their gateway.
///
/// The gateway is switched on last: what is refused half-way leaves a gateway that was off off.
/// What a new gateway must not allow is ended first.
void setUpGateway(Session& session, const std::vector<std::string>& internal,
                  const std::string& external, Missing missing, Disconnect disconnect);

/// Throws Refused when one of the interfaces `names` does not exist now; the text names those that
/// do.
void requirePresent(const std::vector<std::string>& names,
                    const std::vector<Interface>& interfaces);

}  // namespace lumenctl
