#include "lumen/ctl/setup/SetupProposal.h"

#include <algorithm>
#include <optional>

#include "lumen/ctl/router/Networks.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr const char* given = "as given";

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

lumen::Result<Proposal::Part> proposeExternal(const std::vector<Candidate>& candidates,
                                              const std::vector<DefaultRoute>& routes,
                                              const std::vector<std::string>& internal) {
  std::string taken;
  for (const DefaultRoute& route : routes) {
    if (std::none_of(candidates.begin(), candidates.end(),
                     [&](const Candidate& c) { return c.name == route.interface; })) {
      continue;
    }
    if (!contains(internal, route.interface)) {
      return Proposal::Part{route.interface, "default route"};
    }
    if (taken.empty()) taken = route.interface;
  }
  return lumen::Failure{
      "no interface looks like the external one: " +
      (taken.empty() ? "there is no default route"
                     : "the default route goes through " + taken + ", which is to be internal") +
      ". Say which one it is: --external IF"};
}

/// Why the interface looks like an internal one; none when it does not.
std::optional<std::string> reasonForInternal(const Candidate& candidate) {
  if (!candidate.ethernet) return std::nullopt;
  for (const lumen::Ipv4Address address : candidate.addresses) {
    if (isPrivate(address)) {
      return (candidate.bridge ? "bridge, private network (" : "private network (") +
             address.text() + ")";
    }
  }
  if (!candidate.bridge || candidate.addresses.empty()) return std::nullopt;
  return "bridge (" + candidate.addresses.front().text() + ")";
}

lumen::Result<std::vector<Proposal::Part>> proposeInternal(const std::vector<Candidate>& candidates,
                                                           const std::vector<DefaultRoute>& routes,
                                                           const std::string& external) {
  std::vector<Proposal::Part> internal;
  for (const Candidate& candidate : candidates) {
    const bool outwards = candidate.name == external ||
                          std::any_of(routes.begin(), routes.end(), [&](const DefaultRoute& r) {
                            return r.interface == candidate.name;
                          });
    if (outwards) continue;
    const std::optional<std::string> reason = reasonForInternal(candidate);
    if (reason) internal.push_back({candidate.name, *reason});
  }
  if (!internal.empty()) return internal;
  return lumen::Failure{"no interface looks like an internal one: besides " + external +
                        " none is an Ethernet link that has an address of a private network, or a "
                        "bridge that has an address. Say which ones they are: --internal IF..."};
}

}  // namespace

std::vector<std::string> Proposal::internalNames() const {
  std::vector<std::string> names;
  names.reserve(internal.size());
  for (const Part& part : internal) names.push_back(part.name);
  return names;
}

lumen::Result<Proposal> proposeRoles(const std::vector<Candidate>& candidates,
                                     const std::vector<DefaultRoute>& routes,
                                     const std::vector<std::string>& internal,
                                     const std::string& external) {
  Proposal proposal;
  proposal.external = {external, given};
  for (const std::string& name : internal) proposal.internal.push_back({name, given});
  if (external.empty()) {
    const auto found = proposeExternal(candidates, routes, internal);
    if (!found) return found.failure();
    proposal.external = *found;
  }
  if (internal.empty()) {
    const auto found = proposeInternal(candidates, routes, proposal.external.name);
    if (!found) return found.failure();
    proposal.internal = *found;
  }
  return proposal;
}

}  // namespace lumenctl
