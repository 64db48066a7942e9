#include "lumen/ctl/setup/SetupProposal.h"

#include <algorithm>

#include "lumen/ctl/router/Networks.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr const char* given = "you said so";

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void proposeExternal(Proposal& proposal, const std::vector<Candidate>& candidates,
                     const std::vector<DefaultRoute>& routes,
                     const std::vector<std::string>& internal) {
  std::string taken;
  for (const DefaultRoute& route : routes) {
    if (std::none_of(candidates.begin(), candidates.end(),
                     [&](const Candidate& c) { return c.name == route.interface; })) {
      continue;
    }
    if (!contains(internal, route.interface)) {
      proposal.external = {route.interface, "the default route leaves by it"};
      return;
    }
    if (taken.empty()) taken = route.interface;
  }
  proposal.refusal =
      "no interface looks like the external one: " +
      (taken.empty() ? "there is no default route"
                     : "the default route leaves by " + taken + ", which is to be internal") +
      ". Say which one it is: --external IF";
}

/// Empty when the interface does not look like an internal one.
std::string reasonForInternal(const Candidate& candidate) {
  if (!candidate.ethernet) return {};
  for (const uint32_t address : candidate.addresses) {
    if (isPrivate(address)) {
      return (candidate.bridge ? "bridge, private network (" : "private network (") +
             dotted(address) + ")";
    }
  }
  if (!candidate.bridge || candidate.addresses.empty()) return {};
  return "bridge (" + dotted(candidate.addresses.front()) + ")";
}

void proposeInternal(Proposal& proposal, const std::vector<Candidate>& candidates,
                     const std::vector<DefaultRoute>& routes) {
  const std::string& external = proposal.external.name;
  for (const Candidate& candidate : candidates) {
    const bool outwards = candidate.name == external ||
                          std::any_of(routes.begin(), routes.end(), [&](const DefaultRoute& r) {
                            return r.interface == candidate.name;
                          });
    if (outwards) continue;
    const std::string reason = reasonForInternal(candidate);
    if (!reason.empty()) proposal.internal.push_back({candidate.name, reason});
  }
  if (!proposal.internal.empty()) return;
  proposal.refusal = "no interface looks like an internal one: besides " + external +
                     " none is an Ethernet link that has an address of a private network, or a "
                     "bridge that has an address. Say which ones they are: --internal IF...";
}

}  // namespace

std::vector<std::string> Proposal::internalNames() const {
  std::vector<std::string> names;
  names.reserve(internal.size());
  for (const Part& part : internal) names.push_back(part.name);
  return names;
}

Proposal proposeRoles(const std::vector<Candidate>& candidates,
                      const std::vector<DefaultRoute>& routes,
                      const std::vector<std::string>& internal, const std::string& external) {
  Proposal proposal;
  proposal.external = {external, given};
  for (const std::string& name : internal) proposal.internal.push_back({name, given});
  if (external.empty()) proposeExternal(proposal, candidates, routes, internal);
  if (internal.empty() && proposal.refusal.empty()) proposeInternal(proposal, candidates, routes);
  return proposal;
}

}  // namespace lumenctl
