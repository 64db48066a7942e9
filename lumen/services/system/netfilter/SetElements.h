#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "lumen/values/Result.h"

namespace lumen {

/// One of the four-byte parts of which nf_tables makes the keys and values of a concatenated type:
/// a number in network byte order, and zeros behind it.
using ElementPart = std::array<std::byte, 4>;

/// An element of the map of open ports.
struct MapElement {
  std::array<ElementPart, 3> key;     ///< external address, protocol, external port
  std::array<ElementPart, 2> client;  ///< address, port; of no meaning when it is removed
};

/// A map in a table of the family ip.
struct ElementMap {
  const char* table;
  const char* name;
};

enum class ElementChange { add, remove };

/// Changes the elements of a map in one transaction, or none of them, by messages on `socket`, a
/// netlink socket of the kernel's packet filter (linux/netfilter/nf_tables.h). nft would first read
/// all tables that have changed since its last command, which costs more than the change. A failure
/// is the kernel's error as text.
[[nodiscard]] Result<void> changeElements(int socket, ElementChange change, const ElementMap& map,
                                          std::span<const MapElement> elements);

}  // namespace lumen
