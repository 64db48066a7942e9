#pragma once

#include <list>
#include <string>

#include "base/CRLF.h"

/// The indentation of the elements being written, in blanks; 0 unless XMLNode::get is running.
extern unsigned xmlIndent;

/// One attribute.
struct XMLProp {
  std::string name;
  std::string value;
};

/// One element with its subtree. A value: a copy includes the whole subtree.
///
/// There are no namespaces and no escaping: a name keeps its prefix, and the output is exactly what
/// the strings hold. Only the parser builds a tree from untrusted input. It bounds the depth, which
/// also bounds the recursion of copying, writing and destruction.
class XMLNode {
 public:
  XMLNode() = default;
  explicit XMLNode(std::string nodeName) : name(std::move(nodeName)) {}

  /// Appends a leaf. The reference to the new node stays valid as long as the node is part of this
  /// tree.
  XMLNode& addSubNode(std::string nodeName, std::string nodeValue);
  /// Appends a subtree. The reference is as above.
  XMLNode& addSubNode(XMLNode node);
  void addProperty(std::string propName, std::string propValue);

  /// The element and its subtree as text: children are indented two blanks deeper than their
  /// parent, and every element ends with CRLF. A node with sub-nodes writes those instead of its
  /// value.
  [[nodiscard]] std::string get() const;
  /// The same, after an XML declaration.
  [[nodiscard]] std::string getXML() const;

  std::string name;               ///< prefix included
  std::string value;              ///< text, written unescaped
  std::list<XMLNode> subNodes;    ///< in document order
  std::list<XMLProp> properties;  ///< in the order added

 private:
  void write(std::string& out) const;
};
