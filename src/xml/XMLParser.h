#pragma once

#include <cstddef>
#include <string_view>

#include "xml/XMLNode.h"

/// One document parsed into a tree.
///
/// Memory, stack and time are bounded for any input: the parse fails when elements nest deeper than
/// maxDepth, when the tree exceeds maxTreeSize, or when entities expand far beyond the size of the
/// text.
///
/// A leaf's value is the last piece of character data that expat reported before the leaf's end, so
/// a reference in a text loses what precedes it. An empty element inherits the last piece reported
/// before it. An element with sub-nodes has no value.
class XMLParser {
 public:
  /// The deepest element that is accepted; the document element has depth 1.
  static constexpr size_t maxDepth = 64;
  /// The largest tree in bytes, counting its nodes, its attributes and their texts. The allocator's
  /// overhead is not counted.
  static constexpr size_t maxTreeSize = 4UL * 1024 * 1024;

  /// Parses `document` as one whole document, as UTF-8 regardless of its declaration.
  explicit XMLParser(std::string_view document);

  /// Whether the text was a well-formed document within the bounds.
  bool ok = false;
  /// A nameless node whose only sub-node is the document element. When not ok, it holds what was
  /// parsed before the error.
  XMLNode root;
};
