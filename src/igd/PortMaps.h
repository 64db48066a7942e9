#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "igd/PortMap.h"

/// Port mappings in the order of their keys. An entry is found by its position as fast among ten
/// thousand as among ten: control points list all of them one by one.
class PortMaps {
 public:
  using Entry = std::pair<const Id, PortMap>;

  PortMaps() = default;
  PortMaps(const PortMaps&) = delete;
  PortMaps& operator=(const PortMaps&) = delete;

  /// Adds a mapping, unless there is one with this key.
  void add(const Id& id, PortMap&& mapping);
  /// Erases the mapping with this key, if there is one.
  void erase(const Id& id);

  /// Null when there is none. Valid until the mapping is erased.
  [[nodiscard]] PortMap* find(const Id& id);
  /// The entry at this position, counted from 0; it must be below size().
  [[nodiscard]] const Entry& at(size_t position) const { return *inOrder_[position]; }
  [[nodiscard]] size_t size() const { return inOrder_.size(); }

 private:
  using Order = std::vector<std::unique_ptr<Entry>>;

  /// Where the key is in the order, or would be.
  [[nodiscard]] Order::iterator position(const Id& id);
  [[nodiscard]] bool isAt(Order::iterator position, const Id& id) const;

  /// Sorted by key, never null. Each entry stays where it is when others come and go.
  Order inOrder_;
};
