#include "lumen/services/addresses/AddressTable.h"

#include <algorithm>
#include <iterator>

#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/wire/Addresses.h"

namespace lumen {
namespace {

enum class Place { outside, host, reserved };

/// Where `host` is relative to the network of an address.
Place placeIn(const LinkAddress& link, Ipv4Address host) {
  if (link.broadcast == host) return Place::reserved;
  const Ipv4Network& network = link.network;
  if (!network.holds(host)) return Place::outside;
  if (network.prefix() >= 31) return Place::host;
  return host == network.first() || host == network.last() ? Place::reserved : Place::host;
}

}  // namespace

lm::message AddressTable::handle(const Caller& /*caller*/, uint32_t command,
                                 const lm::message& request) {
  switch (command) {
    case lm::cmd::list:
    case lm::cmd::readAll:
      return lm::pagedAnswer(request, entries_, &AddressTable::record);
    case lm::cmd::readObject: {
      const auto it = entries_.find(request.get_u32(lm::key::objectId));
      if (it == entries_.end()) return lm::refusal("no such object");
      return record(it->first, it->second);
    }
    default:
      return lm::refusal("unknown command");
  }
}

void AddressTable::add(uint32_t interface, bool running, const LinkAddress& address) {
  const auto [place, isNew] = places_.try_emplace({address.address, interface}, lastId_ + 1);
  Entry& entry = entries_[place->second];
  entry.networks.insert(address);
  if (!isNew) return;
  ++lastId_;
  entry.interface = interface;
  entry.address = address.address;
  entry.running = running;
  notify({record(place->second, entry)});
}

void AddressTable::remove(uint32_t interface, const LinkAddress& address) {
  const auto place = places_.find({address.address, interface});
  if (place == places_.end()) return;
  const auto it = entries_.find(place->second);
  it->second.networks.erase(address);
  if (!it->second.networks.empty()) return;
  const lm::message gone = removedRecord(it->first, it->second);
  entries_.erase(it);
  places_.erase(place);
  notify({gone});
}

void AddressTable::replace(uint32_t interface, bool running,
                           const std::set<LinkAddress>& addresses) {
  // Add first: an address whose network changes is not removed in between.
  for (const LinkAddress& address : addresses) add(interface, running, address);
  for (const LinkAddress& address : held(interface)) {
    if (!addresses.contains(address)) remove(interface, address);
  }
}

std::set<LinkAddress> AddressTable::removeAll(uint32_t interface) {
  std::set<LinkAddress> all = held(interface);
  std::vector<lm::message> gone;
  visitEntries(interface, [&](uint32_t id, Entry& entry) {
    gone.push_back(removedRecord(id, entry));
    places_.erase({entry.address, interface});
  });
  std::erase_if(entries_, [&](const auto& item) { return item.second.interface == interface; });
  notify(std::move(gone));
  return all;
}

void AddressTable::announce(uint32_t interface, bool running) {
  std::vector<lm::message> records;
  visitEntries(interface, [&](uint32_t id, Entry& entry) {
    entry.running = running;
    records.push_back(record(id, entry));
  });
  notify(std::move(records));
}

std::optional<uint32_t> AddressTable::interfaceOf(Ipv4Address address) const {
  const auto place = places_.lower_bound({address, 0});
  if (place == places_.end() || place->first.first != address) return std::nullopt;
  return place->first.second;
}

bool AddressTable::isOwn(Ipv4Address address) const {
  return interfaceOf(address) || std::ranges::any_of(loopback_, [address](const auto& network) {
           return placeIn(network, address) != Place::outside;
         });
}

bool AddressTable::isReserved(Ipv4Address address) const {
  return std::ranges::any_of(entries_, [address](const auto& item) {
    return std::ranges::any_of(item.second.networks, [address](const LinkAddress& network) {
      return placeIn(network, address) == Place::reserved;
    });
  });
}

std::optional<uint32_t> AddressTable::interfaceTowards(Ipv4Address host) const {
  if (isOwn(host) || isReserved(host)) return std::nullopt;
  std::optional<std::pair<uint32_t, uint32_t>> best;  // what the prefix lacks to 32, interface
  for (const auto& [id, entry] : entries_) {
    for (const LinkAddress& network : entry.networks) {
      if (placeIn(network, host) != Place::host) continue;
      const std::pair candidate(32 - network.network.prefix(), entry.interface);
      best = best ? std::min(*best, candidate) : candidate;
    }
  }
  if (!best) return std::nullopt;
  return best->second;
}

template <typename Visit>
void AddressTable::visitEntries(uint32_t interface, Visit visit) {
  for (auto& [id, entry] : entries_) {
    if (entry.interface == interface) visit(id, entry);
  }
}

std::set<LinkAddress> AddressTable::held(uint32_t interface) {
  std::set<LinkAddress> all;
  visitEntries(interface, [&](uint32_t /*id*/, Entry& entry) {
    all.insert(entry.networks.begin(), entry.networks.end());
  });
  return all;
}

lm::message AddressTable::record(uint32_t id, const Entry& entry) {
  lm::message m;
  lm::addresses::write(m, {.id = id,
                           .interface = entry.interface,
                           .address = entry.address.bytes(),
                           .disabled = !entry.running});
  return m;
}

lm::message AddressTable::removedRecord(uint32_t id, const Entry& entry) {
  lm::message m;
  // A removal that says that it is disabled would not be acted on.
  lm::addresses::write(m, {.id = id,
                           .interface = entry.interface,
                           .address = entry.address.bytes(),
                           .disabled = false,
                           .removed = true});
  return m;
}

void AddressTable::notify(std::vector<lm::message> records) {
  for (auto first = records.begin(); first != records.end();) {
    const auto room = std::min<std::ptrdiff_t>(lm::pageSize, std::distance(first, records.end()));
    lm::message m;
    m.insert_message_array(lm::key::records,
                           {std::make_move_iterator(first), std::make_move_iterator(first + room)});
    notifier_.notify(lm::cmd::changed, lm::addresses::path(), m);
    first += room;
  }
}

}  // namespace lumen
