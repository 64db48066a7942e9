#include "pcp/table/PinholeTable.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace pcp {

namespace {

ResultCode codeOf(Pinholes::Failure failure, bool exact) {
  switch (failure) {
    case Pinholes::Failure::conflict:
      return exact ? ResultCode::cannotProvideExternal : ResultCode::noResources;
    case Pinholes::Failure::forbidden:
      return ResultCode::notAuthorized;
    case Pinholes::Failure::network:
      return ResultCode::networkFailure;
    case Pinholes::Failure::full:
    case Pinholes::Failure::unavailable:
      break;
  }
  return ResultCode::noResources;
}

}  // namespace

std::variant<uint32_t, ResultCode> PinholeTable::map(const Wish& wish) {
  forgetEnded(mappings_.lower_bound({wish.host, {}}),
              mappings_.upper_bound({wish.host, {UINT8_MAX, UINT16_MAX}}));
  const uint32_t lifetime =
      std::clamp(wish.lifetime, MappingTable::shortest, MappingTable::longest);
  const auto mapping = mappings_.find({wish.host, wish.target});
  if (mapping == mappings_.end()) return open(wish, lifetime);
  if (mapping->second.nonce != wish.nonce) return ResultCode::notAuthorized;
  if (!pinholes_.renew(mapping->second.id, lifetime)) {
    // It has ended, and the news of it is under way.
    forget(mapping);
    return open(wish, lifetime);
  }
  mapping->second.end = clock_.now() + std::chrono::seconds(lifetime);
  return lifetime;
}

std::variant<uint32_t, ResultCode> PinholeTable::open(const Wish& wish, uint32_t lifetime) {
  if (countOf(wish.host) >= mostPerHost) return ResultCode::userExceededQuota;
  if (mappings_.size() >= most) forgetEnded(mappings_.begin(), mappings_.end());
  if (mappings_.size() >= most) return ResultCode::noResources;
  const auto opened = pinholes_.add({.host = wish.host,
                                     .protocol = wish.target.protocol,
                                     .port = wish.target.port,
                                     .lifetime = lifetime});
  if (const auto* failure = std::get_if<Pinholes::Failure>(&opened)) {
    return codeOf(*failure, wish.exact);
  }
  const uint32_t id = std::get<uint32_t>(opened);
  const Key key = {wish.host, wish.target};
  byId_.insert_or_assign(id, key);
  mappings_.insert_or_assign(
      key,
      Mapping{.nonce = wish.nonce, .id = id, .end = clock_.now() + std::chrono::seconds(lifetime)});
  return lifetime;
}

ResultCode PinholeTable::unmap(const lumen::Ipv6Address& host, Target target, const Nonce& nonce) {
  const auto mapping = mappings_.find({host, target});
  if (mapping == mappings_.end()) return ResultCode::success;
  if (mapping->second.nonce != nonce) return ResultCode::notAuthorized;
  pinholes_.remove(mapping->second.id);
  forget(mapping);
  return ResultCode::success;
}

void PinholeTable::ended(uint32_t id) {
  const auto key = byId_.find(id);
  if (key != byId_.end()) forget(mappings_.find(key->second));
}

void PinholeTable::clear() {
  for (const auto& [key, mapping] : mappings_) pinholes_.remove(mapping.id);
  mappings_.clear();
  byId_.clear();
}

std::optional<uint32_t> PinholeTable::left(const lumen::Ipv6Address& host, Target target) const {
  const auto mapping = mappings_.find({host, target});
  if (mapping == mappings_.end()) return std::nullopt;
  const auto rest = std::chrono::ceil<std::chrono::seconds>(mapping->second.end - clock_.now());
  return static_cast<uint32_t>(std::max<int64_t>(rest.count(), 0));
}

size_t PinholeTable::countOf(const lumen::Ipv6Address& host) const {
  return static_cast<size_t>(std::distance(mappings_.lower_bound({host, {}}),
                                           mappings_.upper_bound({host, {UINT8_MAX, UINT16_MAX}})));
}

// The router closes pinholes by itself and says so. This is for the news that was lost.
void PinholeTable::forgetEnded(Mappings::iterator from, Mappings::iterator to) {
  while (from != to) from = from->second.end <= clock_.now() ? forget(from) : std::next(from);
}

PinholeTable::Mappings::iterator PinholeTable::forget(Mappings::iterator mapping) {
  byId_.erase(mapping->second.id);
  return mappings_.erase(mapping);
}

}  // namespace pcp
