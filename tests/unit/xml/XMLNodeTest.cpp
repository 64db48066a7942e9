#include <gtest/gtest.h>

#include "xml/XMLNode.h"

// Promise: An element without children is written as an open tag, its text and a close tag, and an
// empty one never as a self-closed tag: `<x></x>`.
// Promise: Every element ends its line with CR LF.
TEST(XMLNode, WritesAnEmptyLeafAsTwoTags) { EXPECT_EQ(XMLNode("x").get(), "<x></x>\r\n"); }

TEST(XMLNode, WritesANodeWithoutAName) { EXPECT_EQ(XMLNode().get(), "<></>\r\n"); }

// Promise: Attributes are written as ` name="value"` in the order in which they were added, a
// repeated one again.
TEST(XMLNode, WritesPropertiesInTheOrderAdded) {
  XMLNode node("x");
  node.addProperty("a", "1");
  EXPECT_EQ(node.get(), "<x a=\"1\"></x>\r\n");
  node.addProperty("a", "<\"&");
  EXPECT_EQ(node.get(), "<x a=\"1\" a=\"<\"&\"></x>\r\n");
}

// Promise: Each child is on its own line, two blanks deeper than its parent, and the outermost
// element in column 0.
TEST(XMLNode, IndentsChildrenByTwoBlanks) {
  XMLNode root("root");
  root.addSubNode("a", "1");
  root.addSubNode("b", "");
  EXPECT_EQ(root.get(), "<root>\r\n  <a>1</a>\r\n  <b></b>\r\n</root>\r\n");
}

TEST(XMLNode, IndentsGrandchildrenByFour) {
  XMLNode root("root");
  root.addSubNode(XMLNode("list")).addSubNode("a", "1");
  root.addSubNode("b", "2");
  EXPECT_EQ(root.get(),
            "<root>\r\n  <list>\r\n    <a>1</a>\r\n  </list>\r\n  <b>2</b>\r\n</root>\r\n");
}

// Promise: An element with children writes them and not its own text.
TEST(XMLNode, WritesSubNodesInsteadOfItsValue) {
  XMLNode node("x");
  node.value = "lost";
  node.addSubNode("a", "1");
  EXPECT_EQ(node.get(), "<x>\r\n  <a>1</a>\r\n</x>\r\n");
}

// Promise: Nothing is escaped: `<`, `&`, quotes and line ends in a text or an attribute go out as
// they are.
TEST(XMLNode, EscapesNothing) {
  XMLNode root("root");
  root.addSubNode("a", "<b> & \"c\"\r\n");
  EXPECT_EQ(root.get(), "<root>\r\n  <a><b> & \"c\"\r\n</a>\r\n</root>\r\n");
}

// Promise: A document begins with `<?xml version="1.0"?>` and CR LF, a part of a message does not.
TEST(XMLNode, WritesTheDeclarationBeforeADocument) {
  EXPECT_EQ(XMLNode("x").getXML(), "<?xml version=\"1.0\"?>\r\n<x></x>\r\n");
}

// Promise: A document does not depend on those that were written before it: the indentation starts
// at 0 each time.
TEST(XMLNode, LeavesTheIndentationAsItWas) {
  XMLNode root("root");
  root.addSubNode(XMLNode("list")).addSubNode("a", "1");
  const std::string first = root.get();
  EXPECT_EQ(xmlIndent, 0U);
  EXPECT_EQ(root.getXML(), "<?xml version=\"1.0\"?>\r\n" + first);
  EXPECT_EQ(xmlIndent, 0U);
}

// Promise: Children are written in the order in which they were added.
TEST(XMLNode, AddsSubNodesAtTheEnd) {
  XMLNode root("root");
  XMLNode& first = root.addSubNode("a", "1");
  root.addSubNode("a", "2");
  first.addProperty("p", "3");
  EXPECT_EQ(root.get(), "<root>\r\n  <a p=\"3\">1</a>\r\n  <a>2</a>\r\n</root>\r\n");
}

// Promise: A copy of an element has all that is under it, and a change of the one does not show in
// the other.
TEST(XMLNode, CopiesItsWholeSubtree) {
  XMLNode original("root");
  original.addProperty("p", "1");
  original.addSubNode(XMLNode("list")).addSubNode("a", "1");
  const XMLNode copy = original;
  const std::string before = original.get();
  original.subNodes.front().subNodes.front().addProperty("p", "2");
  original.properties.clear();
  EXPECT_EQ(copy.get(), before);
  EXPECT_NE(original.get(), before);
}
