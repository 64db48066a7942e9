#include "igd/PortMaps.h"

#include <algorithm>
#include <functional>

void PortMaps::add(const Id& id, PortMap&& mapping) {
  const auto there = position(id);
  if (isAt(there, id)) return;
  inOrder_.insert(there, std::make_unique<Entry>(id, std::move(mapping)));
}

void PortMaps::erase(const Id& id) {
  const auto there = position(id);
  if (isAt(there, id)) inOrder_.erase(there);
}

PortMap* PortMaps::find(const Id& id) {
  const auto there = position(id);
  return isAt(there, id) ? &(*there)->second : nullptr;
}

PortMaps::Order::iterator PortMaps::position(const Id& id) {
  return std::ranges::lower_bound(inOrder_, id, std::less<>{},
                                  [](const auto& entry) -> const Id& { return entry->first; });
}

bool PortMaps::isAt(Order::iterator position, const Id& id) const {
  return position != inOrder_.end() && !(id < (*position)->first);
}
