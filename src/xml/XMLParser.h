#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "xml/XMLNode.h"

/// One document parsed into a tree.
///
/// Whatever the text is, memory, stack and time are bounded: elements nested deeper than maxDepth,
/// a tree larger than maxTreeSize and entities that expand to much more than the text end the parse
/// without success.
class XMLParser {
 public:
  /// The deepest element that is accepted; the document element has depth 1.
  static constexpr size_t maxDepth = 64;
  /// The most memory that a tree may take, in bytes: its nodes, its attributes and their texts.
  static constexpr size_t maxTreeSize = 4UL * 1024 * 1024;

  /// Parses `document`, UTF-8 unless it says otherwise, as a whole.
  explicit XMLParser(std::string_view document);
  XMLParser(const XMLParser&) = delete;
  XMLParser& operator=(const XMLParser&) = delete;

  /// Whether the whole text was a well-formed document within the bounds.
  bool ok = false;
  /// A nameless node whose one sub-node is the document element. When not ok it holds what there
  /// was up to the error.
  XMLNode root;

 private:
  class Handlers;

  std::vector<XMLNode*> stack;  ///< open elements, the innermost last; they point into root
  bool textPending = false;     ///< a start tag was seen and its text is not stored yet
  std::string text;             ///< the last piece of character data that expat reported
  size_t treeSize = 0;          ///< bytes that the tree takes by now
};
