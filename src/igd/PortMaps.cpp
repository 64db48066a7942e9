#include "igd/PortMaps.h"

#include <algorithm>

void PortMaps::add(const Id& id, PortMap&& mapping) {
  const auto [entry, isNew] = byId_.try_emplace(id, std::move(mapping));
  if (isNew) inOrder_.insert(position(id), &*entry);
}

void PortMaps::erase(const Id& id) {
  const auto found = byId_.find(id);
  if (found == byId_.end()) return;
  inOrder_.erase(position(id));
  byId_.erase(found);
}

PortMap* PortMaps::find(const Id& id) {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : &found->second;
}

PortMaps::Order::iterator PortMaps::position(const Id& id) {
  return std::lower_bound(inOrder_.begin(), inOrder_.end(), id,
                          [](const Entry* entry, const Id& key) { return entry->first < key; });
}
