#pragma once

#include <list>
#include <string>

#include "base/CRLF.h"

/// Blanks before the elements that are being written: 0 unless XMLNode::get is running.
extern unsigned xmlIndent;

/// One attribute.
struct XMLProp {
  std::string name;
  std::string value;
};

/// One element with its subtree, a value: copying a node copies everything under it.
///
/// There are no namespaces and there is no escaping: a name keeps its prefix, and what is written
/// is exactly what the strings hold. Only the parser takes a tree from outside, and it bounds the
/// depth, so the recursion of copying, writing and destroying is bounded too.
class XMLNode {
 public:
  XMLNode() = default;
  explicit XMLNode(std::string nodeName) : name(std::move(nodeName)) {}

  /// Appends a leaf. The reference is to the appended node and stays valid while that is part of
  /// this tree.
  XMLNode& addSubNode(std::string nodeName, std::string nodeValue);
  /// Appends a whole subtree; the reference as above.
  XMLNode& addSubNode(XMLNode node);
  void addProperty(std::string propName, std::string propValue);

  /// The element and its subtree as text: children two blanks deeper than their parent, every
  /// element ended by CRLF. A node with sub-nodes writes them and not its value.
  [[nodiscard]] std::string get() const;
  /// The same behind an XML declaration.
  [[nodiscard]] std::string getXML() const;

  std::string name;               ///< prefix included
  std::string value;              ///< text, written as it is
  std::list<XMLNode> subNodes;    ///< in document order
  std::list<XMLProp> properties;  ///< in the order added

 private:
  void write(std::string& out) const;
};
