#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/machine/RouteTable.h"
#include "lumen/values/Ipv4.h"
#include "lumen/values/Result.h"

namespace lumenctl {

/// An interface that may get a role.
struct Candidate {
  std::string name;
  bool ethernet = false;  ///< hosts on it can search by multicast; no tunnel and no dial-up link
  bool bridge = false;
  std::vector<lumen::Ipv4Address> addresses;
};

/// A role for each interface that should have one, with the reason.
struct Proposal {
  struct Part {
    std::string name;
    std::string reason;
  };
  [[nodiscard]] std::vector<std::string> internalNames() const;

  std::vector<Part> internal;  ///< in the order of the candidates
  Part external;
};

/// The interface of the default route is external; bridges that have an address, and what has an
/// address of a private network (RFC 1918), are internal. Interfaces with another default route are
/// neither. What the administrator has given (`internal`, `external`; empty: not given) stands, and
/// only the rest is proposed.
[[nodiscard]] lumen::Result<Proposal> proposeRoles(const std::vector<Candidate>& candidates,
                                                   const std::vector<DefaultRoute>& routes,
                                                   const std::vector<std::string>& internal,
                                                   const std::string& external);

}  // namespace lumenctl
