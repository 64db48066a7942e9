#include "lumen/services/nat/RuleMessage.h"

#include <netinet/in.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/wire/NatRules.h"

namespace lumen {

namespace {

namespace key = lm::nat::key;

constexpr std::array setFields = {
    lm::key::objectId,    lm::key::disabled,   key::clientFirst, key::clientLast,
    key::clientPortFirst, key::clientPortLast, key::closed,      key::lease,
    key::remoteNetworks,  key::remotePrefixes,
};

/// The fields that the codec of a rule writes.
std::vector<uint32_t> addFields() {
  lm::message rule;
  lm::nat::write(rule, lm::nat::Rule{.lease = 1, .anyPort = true, .remotes = {{}}});
  std::vector<uint32_t> fields;
  for (const lm::Field& field : rule.fields()) fields.push_back(field.key);
  return fields;
}

bool has(const lm::message& request, uint32_t field) {
  return request.fields().find(field) != nullptr;
}

constexpr const char* emptyLease = "a lease must be at least one second";

Result<void> checkRemotes(const lm::message& request) {
  const auto& networks = request.get_u32_array_ref(key::remoteNetworks);
  const auto& prefixes = request.get_u32_array_ref(key::remotePrefixes);
  if (networks.size() != prefixes.size() ||
      has(request, key::remoteNetworks) != has(request, key::remotePrefixes)) {
    return Failure{"each remote network needs a prefix"};
  }
  if (networks.size() > lm::nat::mostRemotes) {
    return Failure{"a rule has at most " + std::to_string(lm::nat::mostRemotes) +
                   " remote networks"};
  }
  for (const uint32_t prefix : prefixes) {
    if (prefix < 1 || prefix > 32) {
      return Failure{"the prefix of a remote network must be from 1 to 32"};
    }
  }
  return {};
}

// REQUIRES: checkRemotes has found nothing.
Ipv4Networks remotesIn(const lm::message& request) {
  Ipv4Networks remotes;
  for (const lm::nat::RemoteNetwork& remote : lm::nat::readRemotes(request)) {
    remotes.emplace_back(Ipv4Address::fromBytes(remote.address), remote.prefix);
  }
  return tidyNetworks(std::move(remotes));
}

bool isPort(uint32_t number) { return number >= 1 && number <= 65535; }

Result<void> checkRule(const lm::message& request) {
  struct Flag {
    uint32_t field;
    const char* refusal;
  };
  static constexpr Flag flags[] = {
      {lm::key::dynamic, "only dynamic rules are kept"},
      {key::matchAddress, "the external address must be matched"},
      {key::matchPort, "the external port must be matched"},
      {key::matchProtocol, "the protocol must be matched"},
      {key::translateAddress, "the address must be translated"},
      {key::translatePort, "the port must be translated"},
  };
  struct Range {
    uint32_t first;
    uint32_t last;
    const char* refusal;
  };
  static constexpr Range ranges[] = {
      {key::addressFirst, key::addressLast, "external address must be one, not a range"},
      {key::portFirst, key::portLast, "external port must be one, not a range"},
      {key::clientFirst, key::clientLast, "internal client must be one, not a range"},
      {key::clientPortFirst, key::clientPortLast, "internal port must be one, not a range"},
  };

  if (auto known = lm::checkFields(request, addFields()); !known) return known;
  if (request.get_string(key::chain) != lm::nat::chainDstnat) {
    return Failure{"chain must be \"dstnat\""};
  }
  if (request.get_u32(key::action) != lm::nat::actionDnat) return Failure{"action must be 22"};
  for (const Flag& flag : flags) {
    if (!request.get_bool(flag.field)) return Failure{flag.refusal};
  }
  for (const Range& range : ranges) {
    if (request.get_u32(range.first) != request.get_u32(range.last)) return Failure{range.refusal};
  }
  const lm::nat::Rule rule = lm::nat::readRule(request);
  if (rule.protocol != IPPROTO_TCP && rule.protocol != IPPROTO_UDP) {
    return Failure{"protocol must be 6 (TCP) or 17 (UDP)"};
  }
  const bool noWish = rule.anyPort && rule.port == 0;
  if (!noWish && !isPort(rule.port)) return Failure{"external port must be from 1 to 65535"};
  if (!isPort(rule.clientPort)) return Failure{"internal port must be from 1 to 65535"};
  if (rule.lease == 0U) return Failure{emptyLease};
  return checkRemotes(request);
}

Result<void> checkChange(const lm::message& request) {
  if (auto known = lm::checkFields(request, setFields); !known) return known;
  if (has(request, key::closed)) {
    if (!request.get_bool(key::closed)) return Failure{"a closed port stays closed"};
    for (uint32_t field : setFields) {
      if (field == lm::key::objectId || field == key::closed) continue;
      if (has(request, field)) return Failure{"closing a port changes nothing else"};
    }
  }
  // An absent end is not the same as an end of 0.
  if (has(request, key::clientFirst) != has(request, key::clientLast) ||
      request.get_u32(key::clientFirst) != request.get_u32(key::clientLast)) {
    return Failure{"internal client must be one, not a range"};
  }
  if (has(request, key::clientPortFirst) != has(request, key::clientPortLast) ||
      request.get_u32(key::clientPortFirst) != request.get_u32(key::clientPortLast)) {
    return Failure{"internal port must be one, not a range"};
  }
  if (has(request, key::clientPortFirst) && !isPort(request.get_u32(key::clientPortFirst))) {
    return Failure{"internal port must be from 1 to 65535"};
  }
  if (has(request, key::lease) && request.get_u32(key::lease) == 0) return Failure{emptyLease};
  return checkRemotes(request);
}

}  // namespace

Result<RuleRequest> readRule(const lm::message& request) {
  if (const auto valid = checkRule(request); !valid) return valid.failure();
  const lm::nat::Rule wire = lm::nat::readRule(request);
  RuleRequest result;
  Rule& rule = result.rule;
  rule.key = {.external = {.address = Ipv4Address::fromBytes(wire.address),
                           .port = static_cast<uint16_t>(wire.port)},
              .protocol = static_cast<uint8_t>(wire.protocol)};
  rule.client = {.address = Ipv4Address::fromBytes(wire.client),
                 .port = static_cast<uint16_t>(wire.clientPort)};
  rule.remotes = remotesIn(request);
  rule.disabled = wire.disabled;
  if (wire.lease) result.lease = std::chrono::seconds(*wire.lease);
  result.anyPort = wire.anyPort;
  return result;
}

Result<RuleChange> readChange(const lm::message& request) {
  if (const auto valid = checkChange(request); !valid) return valid.failure();
  RuleChange change;
  if (has(request, lm::key::disabled)) change.disabled = request.get_bool(lm::key::disabled);
  if (has(request, key::clientFirst)) {
    change.clientAddress = Ipv4Address::fromBytes(request.get_be32(key::clientFirst));
  }
  if (has(request, key::clientPortFirst)) {
    change.clientPort = static_cast<uint16_t>(request.get_u32(key::clientPortFirst));
  }
  if (has(request, key::lease)) change.lease = std::chrono::seconds(request.get_u32(key::lease));
  if (has(request, key::remoteNetworks)) change.remotes = remotesIn(request);
  change.close = request.get_bool(key::closed);
  return change;
}

lm::message ruleRecord(uint32_t id, const Rule& rule, const RuleStatus& status) {
  lm::message record;
  std::vector<lm::nat::RemoteNetwork> remotes;
  for (const Ipv4Network& remote : rule.remotes) {
    remotes.push_back({.address = remote.first().bytes(), .prefix = remote.prefix()});
  }
  std::optional<uint32_t> lease;
  if (status.left) lease = static_cast<uint32_t>(status.left->count());
  lm::nat::write(record, lm::nat::Record{.rule = {.disabled = rule.disabled,
                                                  .address = rule.key.external.address.bytes(),
                                                  .port = rule.key.external.port,
                                                  .protocol = rule.key.protocol,
                                                  .client = rule.client.address.bytes(),
                                                  .clientPort = rule.client.port,
                                                  .lease = lease,
                                                  .remotes = std::move(remotes)},
                                         .id = id,
                                         .owner = *rule.owner,
                                         .seconds = static_cast<uint64_t>(status.age.count()),
                                         .connections = status.connections,
                                         .stale = status.stale,
                                         .closed = rule.closed,
                                         .uses = status.uses});
  return record;
}

}  // namespace lumen
