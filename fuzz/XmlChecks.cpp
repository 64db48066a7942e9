#include "fuzz/XmlChecks.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/Fuzz.h"

namespace fuzz {

namespace {

// A tree that repeats one long text in every element takes too long to be read again.
constexpr size_t maxWritten = 64UL * 1024;

/// A text that is one piece of character data and needs no escaping, which the writer does not do.
bool isPlain(std::string_view text) {
  return std::ranges::none_of(text, [](char c) {
    return (c >= 0 && c < ' ') || std::string_view("&<>\"]").find(c) != std::string_view::npos;
  });
}

bool isPlain(const XMLNode& node) {
  return isPlain(node.value) &&
         std::ranges::all_of(node.properties,
                             [](const XMLProp& prop) { return isPlain(prop.value); }) &&
         std::ranges::all_of(node.subNodes, [](const XMLNode& child) { return isPlain(child); });
}

/// Returns the size of the tree.
size_t checkElement(const XMLNode& node, size_t depth) {
  require(depth <= XMLParser::maxDepth, "depth is bounded");
  require(!node.name.empty(), "an element has a name");
  require(node.subNodes.empty() || node.value.empty(), "an element has sub-nodes or a value");
  size_t bytes = sizeof node + node.name.size() + node.value.size();
  for (const XMLProp& prop : node.properties) {
    require(!prop.name.empty(), "an attribute has a name");
    bytes += sizeof prop + prop.name.size() + prop.value.size();
  }
  for (const XMLNode& child : node.subNodes) bytes += checkElement(child, depth + 1);
  return bytes;
}

void checkSame(const XMLNode& a, const XMLNode& b) {
  require(a.name == b.name, "names are written as they were read");
  const auto same = [](const XMLProp& x, const XMLProp& y) {
    return x.name == y.name && x.value == y.value;
  };
  require(std::ranges::equal(a.properties, b.properties, same),
          "attributes are written as they were read");
  // An empty leaf gets the text before it, which is what it is indented by.
  require(a.value.empty() || a.value == b.value, "values are written as they were read");
  require(a.subNodes.size() == b.subNodes.size(), "sub-nodes are written as they were read");
  for (auto x = a.subNodes.begin(), y = b.subNodes.begin(); x != a.subNodes.end(); ++x, ++y) {
    checkSame(*x, *y);
  }
}

}  // namespace

void checkDocument(const XMLParser& document) {
  if (!document.ok) return;
  require(document.root.name.empty() && document.root.subNodes.size() == 1,
          "a document is one element");
  const XMLNode& element = document.root.subNodes.front();
  const size_t bytes = checkElement(element, 1);
  require(bytes <= XMLParser::maxTreeSize, "the tree's size is bounded");
  if (bytes > maxWritten || !isPlain(element)) return;
  const XMLParser again(element.getXML());
  require(again.ok, "what is written can be read");
  checkSame(element, again.root.subNodes.front());
}

}  // namespace fuzz
