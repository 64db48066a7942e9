#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/Session.h"

namespace lumenctl {

/// Makes this router an Internet gateway for the hosts on the interfaces `internal`, with
/// `external` towards the Internet, and switches the gateway on. Interfaces that are not named are
/// taken from it. What is already so is left alone, so that nothing restarts needlessly.
///
/// The gateway is switched on last: what is refused half-way leaves a gateway that was off off.
void setUpGateway(Session& session, const std::vector<std::string>& internal,
                  const std::string& external);

}  // namespace lumenctl
