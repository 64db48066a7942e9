#pragma once

#include <cstddef>
#include <string_view>

#include "xml/XMLNode.h"

/// One document parsed into a tree.
///
/// Whatever the text is, memory, stack and time are bounded: elements nested deeper than maxDepth,
/// a tree larger than maxTreeSize and entities that expand to much more than the text end the parse
/// without success.
///
/// A leaf's value is the last piece of character data that expat reported before its end, so text
/// around a reference loses what is before it; an empty element has the last piece that was
/// reported before it; an element with sub-nodes has none.
class XMLParser {
 public:
  /// The deepest element that is accepted; the document element has depth 1.
  static constexpr size_t maxDepth = 64;
  /// The largest tree, in bytes: its nodes, its attributes and their texts. What the allocator
  /// needs for itself comes on top.
  static constexpr size_t maxTreeSize = 4UL * 1024 * 1024;

  /// Parses `document` as a whole, as UTF-8 whatever it declares.
  explicit XMLParser(std::string_view document);

  /// Whether the whole text was a well-formed document within the bounds.
  bool ok = false;
  /// A nameless node whose one sub-node is the document element. When not ok it holds what there
  /// was up to the error.
  XMLNode root;
};
