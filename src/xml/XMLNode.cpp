#include "xml/XMLNode.h"

#include <utility>

unsigned xmlIndent = 0;

namespace {

/// Room for most answers to control requests, and for most documents, in bytes.
constexpr size_t usualElement = 512;
constexpr size_t usualDocument = 6144;

}  // namespace

XMLNode& XMLNode::addSubNode(std::string nodeName, std::string nodeValue) {
  XMLNode& node = subNodes.emplace_back(std::move(nodeName));
  node.value = std::move(nodeValue);
  return node;
}

XMLNode& XMLNode::addSubNode(XMLNode node) { return subNodes.emplace_back(std::move(node)); }

void XMLNode::addProperty(std::string propName, std::string propValue) {
  properties.push_back({std::move(propName), std::move(propValue)});
}

std::string XMLNode::get() const {
  std::string out;
  out.reserve(usualElement);
  write(out);
  return out;
}

std::string XMLNode::getXML() const {
  std::string out;
  out.reserve(usualDocument);
  out.append("<?xml version=\"1.0\"?>").append(CRLF);
  write(out);
  return out;
}

void XMLNode::write(std::string& out) const {
  out.append("<").append(name);
  for (const XMLProp& property : properties) {
    out.append(" ").append(property.name).append("=\"").append(property.value).append("\"");
  }
  out.append(">");
  if (subNodes.empty()) {
    out.append(value);
  } else {
    out.append(CRLF);
    xmlIndent += 2;
    for (const XMLNode& node : subNodes) {
      out.append(xmlIndent, ' ');
      node.write(out);
    }
    xmlIndent -= 2;
    out.append(xmlIndent, ' ');
  }
  out.append("</").append(name).append(">").append(CRLF);
}
