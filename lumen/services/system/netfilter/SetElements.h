#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "lumen/values/Result.h"

namespace lumen {

/// One of the four-byte parts of which nf_tables makes the keys and values of a concatenated type:
/// bytes in network order, and zeros behind a shorter number. An IPv6 address is four parts.
using ElementPart = std::array<std::byte, 4>;
using ElementParts = std::vector<ElementPart>;

/// What an element has counted.
struct ElementCounter {
  uint64_t packets = 0;
  uint64_t bytes = 0;

  bool operator==(const ElementCounter&) const = default;
};

/// An element of a set or map.
struct SetElement {
  ElementParts key;
  ElementParts keyEnd = {};  ///< the last key, in a set of intervals; empty in another set
  ElementParts data = {};    ///< of a map; empty in a set, and of no meaning when it is removed
  /// When it is added, the value that its counter begins with: none, 0. When it is read, none: the
  /// set counts nothing.
  std::optional<ElementCounter> counter = {};

  bool operator==(const SetElement&) const = default;
};

/// Of a table: NFPROTO_IPV4 or NFPROTO_IPV6 of linux/netfilter.h.
enum class TableFamily : uint8_t { ip = 2, ip6 = 10 };

/// A set or map.
struct ElementSet {
  TableFamily family;
  const char* table;
  const char* name;
};

/// What a step of a transaction does with elements.
enum class ElementAction { add, remove };

/// One step of a transaction.
struct ElementChange {
  ElementAction action;
  ElementSet set;
  std::span<const SetElement> elements;
};

using ElementVisitor = std::function<void(const SetElement&)>;

// These functions use messages on `socket`, a netlink socket of the kernel's packet filter
// (linux/netfilter/nf_tables.h) that is used for nothing else meanwhile. nft would first read all
// tables that have changed since its last command, which costs more than a change, and make text.
// None waits: the kernel has answered before a message is sent. A failure is an error as text.

/// Makes the changes, in their order, in one transaction, or none of them.
[[nodiscard]] Result<void> changeElements(int socket, std::span<const ElementChange> changes);

/// The element of `set` with the key `key`; in a set of intervals one that holds it.
[[nodiscard]] Result<SetElement> readElement(int socket, const ElementSet& set,
                                             const ElementParts& key);

/// Visits all elements of `set`. When another program changed the packet filter meanwhile it begins
/// again: an element may be visited more than once, and the last visit is right. After a failure
/// some may have been visited.
[[nodiscard]] Result<void> readElements(int socket, const ElementSet& set,
                                        const ElementVisitor& visit);

}  // namespace lumen
