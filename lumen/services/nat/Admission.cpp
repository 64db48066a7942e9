#include "lumen/services/nat/Admission.h"

#include <utility>

#include "lumen/services/nat/PortRights.h"
#include "lumen/values/Result.h"

namespace lumen {

namespace {

using lm::nat::Denial;
using lm::nat::Holder;
using lm::nat::Refusal;

std::optional<Refused> asRefusal(const Result<void>& allowed, Refusal why = Refusal::policy) {
  if (allowed) return std::nullopt;
  return Refused{.text = allowed.why(), .denial = {.why = why}};
}

Refused full(std::string text) {
  return {.text = std::move(text), .denial = {.why = Refusal::full}};
}

/// A lease that is longer than the caller's service file grants; `from` is its begin.
std::optional<Refused> refuseLease(const Caller& caller, const Rule& rule, lm::Clock::Time from) {
  std::optional<lm::Clock::Time::duration> lease;
  if (rule.until) lease = *rule.until - from;
  return asRefusal(PortRights(caller).toLease(lease), Refusal::rights);
}

}  // namespace

Admission::Admission(const RuleTable& table, const LocalNetworks& networks,
                     const KnownInterfaces& interfaces, Listeners& listeners,
                     const PolicyBook& policies)
    : table_(table),
      networks_(networks),
      interfaces_(interfaces),
      listeners_(listeners),
      policies_(policies) {}

std::optional<Refused> Admission::refuseAdd(const Caller& caller, Rule& rule, bool anyPort) {
  const PortRights rights(caller);
  if (auto refused = asRefusal(rights.toOpenPorts(), Refusal::rights)) return refused;
  if (auto refused = refuseLease(caller, rule, rule.addedAt)) return refused;
  if (!networks_.interfaceOf(rule.key.external.address)) {
    return Refused{.text = "external address " + rule.key.external.address.text() +
                           " is not one of this router",
                   .denial = {.why = Refusal::policy}};
  }
  if (!anyPort) {
    const uint16_t port = rule.key.external.port;
    if (auto refused = asRefusal(policy().allowsPort(port), Refusal::port)) return refused;
  }
  if (auto refused =
          asRefusal(policy().allowsClient(rule.key, rule.client, networks_, interfaces_))) {
    return refused;
  }
  if (!anyPort) {
    if (auto refused = refuseTaken(rule)) return refused;
  }
  if (table_.size() >= policy().maxRules) {
    return full("there are " + std::to_string(table_.size()) +
                " rules already, the policy allows " + std::to_string(policy().maxRules));
  }
  if (auto refused = refuseFull(rule.client.address, table_.size())) return refused;
  const auto oneMore = rights.toOneMore("rules", table_.sizeOf(*rule.owner));
  if (auto refused = asRefusal(oneMore, Refusal::full)) return refused;
  return anyPort ? choosePort(rule) : refuseOwnPort(rule.key);
}

// The external address may have left the router since: such a rule keeps working when it is back.
std::optional<Refused> Admission::refuseSet(const Caller& caller, const Rule& before,
                                            const Rule& after, lm::Clock::Time now) const {
  // An owner may close its port whatever the policy allows now.
  if (after.disabled && after.client == before.client && after.until == before.until) return {};
  if (auto refused = asRefusal(policy().allows(after.key, after.client, networks_, interfaces_))) {
    return refused;
  }
  if (after.until != before.until) {
    if (auto refused = refuseLease(caller, after, now)) return refused;
  }
  if (before.disabled && !after.disabled) {
    if (auto refused = refuseOwnPort(after.key)) return refused;
  }
  if (after.client.address == before.client.address) return {};
  return refuseFull(after.client.address, table_.size() - 1);
}

std::optional<Refused> Admission::refuseTaken(const Rule& rule) const {
  const Rule* const holder = table_.find(rule.key);
  if (holder == nullptr) return std::nullopt;
  return Refused{.text = keyText(rule.key) + " is already in use",
                 .denial = {.why = Refusal::conflict,
                            .holder = *holder->owner == administratorName ? Holder::administrator
                                      : *holder->owner == *rule.owner     ? Holder::sameService
                                                                          : Holder::otherService}};
}

std::optional<Refused> Admission::refuseOwnPort(const RuleKey& key) const {
  if (policy().routerPorts.contains(key.external.port)) return std::nullopt;
  const auto side = networks_.interfaceOf(key.external.address);
  const auto interface = side ? interfaces_.known(*side) : std::nullopt;
  const auto listener =
      listeners_.find(key.protocol, key.external, interface ? interface->index : 0);
  if (!listener) return std::nullopt;
  return Refused{.text = keyText(key) + " is this router's own: " + *listener + " listens there",
                 .denial = {.why = Refusal::conflict, .holder = Holder::router},
                 .isOwnPort = true};
}

std::optional<Refused> Admission::refuseFull(Ipv4Address client, size_t others) const {
  const uint32_t count = table_.sizeOf(client);
  if (count >= policy().maxRulesPerClient) {
    return full("internal client " + client.text() +
                " has all the rules that the policy allows it, " +
                std::to_string(policy().maxRulesPerClient));
  }
  if (count >= Policy::fewRules && others >= policy().maxRules - policy().keptPlaces()) {
    return full("internal client " + client.text() + " has " + std::to_string(count) +
                " rules, and the last " + std::to_string(policy().keptPlaces()) +
                " places are kept for clients that have fewer than " +
                std::to_string(Policy::fewRules));
  }
  return std::nullopt;
}

std::optional<Refused> Admission::choosePort(Rule& rule) {
  RuleKey key = rule.key;
  const auto isFree = [&](uint16_t port) {
    key.external.port = port;
    return table_.find(key) == nullptr && !refuseOwnPort(key);
  };
  const uint16_t wish = rule.key.external.port;
  if (policy().externalPorts.contains(wish) && isFree(wish)) return std::nullopt;
  const auto port = picker_.pick(policy().externalPorts, isFree);
  if (!port) return full("no external port is free");
  rule.key.external.port = *port;
  return std::nullopt;
}

}  // namespace lumen
