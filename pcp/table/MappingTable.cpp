#include "pcp/table/MappingTable.h"

#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>
#include <vector>

namespace pcp {

namespace {

// A random port is rarely one that another client has.
constexpr int mostTries = 8;

// A PCP server must not map its own ports (RFC 6887 section 11.3).
bool isOwnPort(uint8_t protocol, uint16_t port) {
  return protocol == IPPROTO_UDP && (port == 5350 || port == 5351);
}

ResultCode codeOf(Ports::Failure failure, bool exact) {
  switch (failure) {
    case Ports::Failure::conflict:
      return exact ? ResultCode::cannotProvideExternal : ResultCode::noResources;
    case Ports::Failure::forbidden:
      return ResultCode::notAuthorized;
    case Ports::Failure::network:
      return ResultCode::networkFailure;
    case Ports::Failure::full:
    case Ports::Failure::gone:
    case Ports::Failure::unavailable:
      break;
  }
  return ResultCode::noResources;
}

}  // namespace

void MappingTable::setExternal(std::optional<lumen::Ipv4Address> address) {
  if (address == external_) return;
  clear();
  external_ = address;
}

// Addresses of IPv6 are not translated.
std::optional<IpAddress> MappingTable::externalOf(const IpAddress& client) const {
  if (!client.ipv4()) return client;
  if (!external_) return std::nullopt;
  return IpAddress::mapped(*external_);
}

std::variant<MappingTable::Assigned, ResultCode> MappingTable::map(const Wish& wish) {
  if (!externalOf(wish.client)) return ResultCode::networkFailure;
  forgetEnded(mappings_.lower_bound({wish.client, {}}),
              mappings_.upper_bound({wish.client, {UINT8_MAX, UINT16_MAX}}));
  const uint32_t lifetime = granted(wish.lifetime, wish.noLonger ? 1 : shortest);
  const auto mapping = mappings_.find({wish.client, wish.target});
  return mapping == mappings_.end() ? open(wish, lifetime) : renew(mapping, wish, lifetime);
}

std::variant<MappingTable::Assigned, ResultCode> MappingTable::open(const Wish& wish,
                                                                    uint32_t lifetime) {
  Endpoint wished = {externalOf(wish.client).value(), wish.port};
  if (wished.address == wish.client) {
    // Nor are ports, so that no other one can be had (RFC 6887 section 11.3).
    wished.port = wish.target.port;
    if (wish.exact && wish.port != wished.port) return ResultCode::cannotProvideExternal;
    if (isOwnPort(wish.target.protocol, wished.port)) return ResultCode::notAuthorized;
  }
  if (countOf(wish.client) >= mostPerClient) return ResultCode::userExceededQuota;
  if (mappings_.size() >= most) forgetEnded(mappings_.begin(), mappings_.end());
  if (mappings_.size() >= most) return ResultCode::noResources;
  const Networks remotes = lumen::tidyNetworks(wish.filter.networks);
  if (remotes.size() > mostRemotes) return ResultCode::excessiveRemotePeers;
  const auto opened = openPort({.protocol = wish.target.protocol,
                                .external = wished,
                                .exact = wish.exact,
                                .client = {wish.client, wish.target.port},
                                .remotes = remotes,
                                .lifetime = lifetime});
  if (const auto* failure = std::get_if<Ports::Failure>(&opened)) {
    return codeOf(*failure, wish.exact);
  }
  const auto& port = std::get<Ports::Open>(opened);
  const Key key = {wish.client, wish.target};
  const Endpoint external = {wished.address, port.port};
  byId_.insert_or_assign(port.id, key);
  ++holders_.try_emplace(external, Holder{wish.client}).first->second.mappings;
  mappings_.insert_or_assign(key, Mapping{.nonce = wish.nonce,
                                          .id = port.id,
                                          .external = external,
                                          .remotes = remotes,
                                          .end = clock_.now() + std::chrono::seconds(lifetime)});
  return Assigned{external, lifetime};
}

std::variant<Ports::Open, Ports::Failure> MappingTable::openPort(Ports::Wish wish) {
  if (!mayHave(wish, wish.external.port)) {
    if (wish.exact) return Ports::Failure::conflict;
    wish.external.port = 0;
  }
  std::vector<uint32_t> unfit;
  std::variant<Ports::Open, Ports::Failure> result = Ports::Failure::conflict;
  for (int tries = 0; tries < mostTries; ++tries) {
    result = ports_.add(wish);
    const auto* port = std::get_if<Ports::Open>(&result);
    if (port == nullptr || mayHave(wish, port->port)) break;
    // It stays until another one is found, so that it does not come again.
    unfit.push_back(port->id);
    result = Ports::Failure::conflict;
    wish.external.port = 0;
  }
  for (uint32_t id : unfit) ports_.remove(id);
  return result;
}

// What a client has for one protocol is kept for it for the other one (RFC 6886 section 3.3).
bool MappingTable::mayHave(const Ports::Wish& wish, uint16_t port) const {
  const auto holder = holders_.find({wish.external.address, port});
  const bool free = holder == holders_.end() || holder->second.client == wish.client.address;
  return free && !isOwnPort(wish.protocol, port);
}

std::variant<MappingTable::Assigned, ResultCode> MappingTable::renew(Mappings::iterator mapping,
                                                                     const Wish& wish,
                                                                     uint32_t lifetime) {
  if (mapping->second.nonce != wish.nonce || mapping->second.closed) {
    return ResultCode::notAuthorized;
  }
  if (wish.exact && wish.port != mapping->second.external.port) {
    return ResultCode::cannotProvideExternal;
  }
  Networks remotes = wish.filter.networks;
  if (!wish.filter.forget) {
    const Networks& before = mapping->second.remotes;
    remotes.insert(remotes.end(), before.begin(), before.end());
  }
  remotes = lumen::tidyNetworks(std::move(remotes));
  if (remotes.size() > mostRemotes) return ResultCode::excessiveRemotePeers;
  const auto others = remotes == mapping->second.remotes ? std::nullopt : std::optional(remotes);
  const auto failure = ports_.renew(mapping->second.id, lifetime, others);
  if (failure == Ports::Failure::gone) {
    // The news of it is under way.
    Wish again = wish;
    if (again.port == 0) again.port = mapping->second.external.port;
    again.filter = {.networks = std::move(remotes)};
    forget(mapping);
    return open(again, lifetime);
  }
  if (failure) return codeOf(*failure, wish.exact);
  mapping->second.end = clock_.now() + std::chrono::seconds(lifetime);
  mapping->second.remotes = std::move(remotes);
  return Assigned{mapping->second.external, lifetime};
}

ResultCode MappingTable::unmap(const IpAddress& client, Target target, const Nonce& nonce) {
  const auto mapping = mappings_.find({client, target});
  if (mapping == mappings_.end()) return ResultCode::success;
  if (mapping->second.nonce != nonce) return ResultCode::notAuthorized;
  ports_.remove(mapping->second.id);
  forget(mapping);
  return ResultCode::success;
}

ResultCode MappingTable::unmapAll(const IpAddress& client, uint8_t protocol, const Nonce& nonce) {
  ResultCode code = ResultCode::success;
  auto mapping = mappings_.lower_bound({client, {protocol, 0}});
  const auto end = mappings_.upper_bound({client, {protocol, UINT16_MAX}});
  while (mapping != end) {
    if (mapping->second.nonce != nonce) {
      code = ResultCode::notAuthorized;
      ++mapping;
      continue;
    }
    ports_.remove(mapping->second.id);
    mapping = forget(mapping);
  }
  return code;
}

std::optional<Endpoint> MappingTable::openByOthers(const IpAddress& client, Target target) {
  const auto external = externalOf(client);
  if (!external || mappings_.contains({client, target})) return std::nullopt;
  const auto port = ports_.openByOthers(target.protocol, *external, {client, target.port});
  if (!port) return std::nullopt;
  return Endpoint{*external, *port};
}

void MappingTable::ended(uint32_t id) {
  const auto key = byId_.find(id);
  if (key != byId_.end()) forget(mappings_.find(key->second));
}

void MappingTable::setClosed(uint32_t id, bool closed) {
  const auto key = byId_.find(id);
  if (key != byId_.end()) mappings_.find(key->second)->second.closed = closed;
}

void MappingTable::clear() {
  for (const auto& [key, mapping] : mappings_) ports_.remove(mapping.id);
  mappings_.clear();
  byId_.clear();
  holders_.clear();
}

std::optional<uint32_t> MappingTable::left(const IpAddress& client, Target target) const {
  const auto mapping = mappings_.find({client, target});
  if (mapping == mappings_.end()) return std::nullopt;
  const auto rest = std::chrono::ceil<std::chrono::seconds>(mapping->second.end - clock_.now());
  return static_cast<uint32_t>(std::max<int64_t>(rest.count(), 0));
}

size_t MappingTable::countOf(const IpAddress& client) const {
  return static_cast<size_t>(
      std::distance(mappings_.lower_bound({client, {}}),
                    mappings_.upper_bound({client, {UINT8_MAX, UINT16_MAX}})));
}

// The router closes the ports by itself and says so. This is for the news that was lost.
void MappingTable::forgetEnded(Mappings::iterator from, Mappings::iterator to) {
  while (from != to) from = from->second.end <= clock_.now() ? forget(from) : std::next(from);
}

MappingTable::Mappings::iterator MappingTable::forget(Mappings::iterator mapping) {
  byId_.erase(mapping->second.id);
  if (const auto holder = holders_.find(mapping->second.external); --holder->second.mappings == 0) {
    holders_.erase(holder);
  }
  return mappings_.erase(mapping);
}

}  // namespace pcp
