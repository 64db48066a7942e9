#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "xml/XMLParser.h"

namespace {

/// The only element in `node`.
const XMLNode& onlyIn(const XMLNode& node) {
  EXPECT_EQ(node.subNodes.size(), 1U);
  return node.subNodes.front();
}

std::string repeat(const std::string& text, size_t times) {
  std::string result;
  for (size_t i = 0; i < times; ++i) result += text;
  return result;
}

std::string nested(size_t depth) { return repeat("<a>", depth) + repeat("</a>", depth); }

size_t depthOf(const XMLNode& node) {
  size_t deepest = 0;
  for (const XMLNode& child : node.subNodes) deepest = std::max(deepest, 1 + depthOf(child));
  return deepest;
}

size_t bytesOf(const XMLNode& node) {
  size_t bytes = sizeof node + node.name.size() + node.value.size();
  for (const XMLProp& p : node.properties) bytes += sizeof p + p.name.size() + p.value.size();
  for (const XMLNode& child : node.subNodes) bytes += bytesOf(child);
  return bytes;
}

}  // namespace

// Promise: A well-formed document gives its tree: `<a><b>1</b><c>2</c></a>` an `a` without a text,
// with `b` of `1` and `c` of `2`.
TEST(XMLParser, BuildsTheTreeOfADocument) {
  const XMLParser parser("<a><b>1</b><c>2</c></a>");
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(parser.root.name, "");
  const XMLNode& a = onlyIn(parser.root);
  EXPECT_EQ(a.name, "a");
  EXPECT_EQ(a.value, "");
  ASSERT_EQ(a.subNodes.size(), 2U);
  EXPECT_EQ(a.subNodes.front().name, "b");
  EXPECT_EQ(a.subNodes.front().value, "1");
  EXPECT_EQ(a.subNodes.back().name, "c");
  EXPECT_EQ(a.subNodes.back().value, "2");
}

// Promise: Names keep their prefix as written, and attributes their order and values; namespaces
// are not resolved.
TEST(XMLParser, KeepsPrefixesAndPropertiesAsWritten) {
  const XMLParser parser("<s:Envelope xmlns:s=\"urn:x\" b='2' a=\"1\"/>");
  ASSERT_TRUE(parser.ok);
  const XMLNode& envelope = onlyIn(parser.root);
  EXPECT_EQ(envelope.name, "s:Envelope");
  ASSERT_EQ(envelope.properties.size(), 3U);
  EXPECT_EQ(envelope.properties.front().name, "xmlns:s");
  EXPECT_EQ(envelope.properties.front().value, "urn:x");
  EXPECT_EQ(envelope.properties.back().name, "a");
}

// Promise: What is written is read back as the same tree.
TEST(XMLParser, ReadsWhatTheNodeWrites) {
  XMLNode root("root");
  root.addProperty("a", "1");
  root.addSubNode(XMLNode("list")).addSubNode("a", "x y");
  const XMLParser parser(root.getXML());
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(onlyIn(parser.root).get(), root.get());
}

// Promise: A text that holds an entity, a character reference or a CDATA section is its last piece
// alone: `a&amp;b` is `b`.
TEST(XMLParser, GivesALeafTheLastPieceOfItsText) {
  EXPECT_EQ(onlyIn(XMLParser("<a>a&amp;b</a>").root).value, "b");
  EXPECT_EQ(onlyIn(XMLParser("<a>a&amp;</a>").root).value, "&");
  EXPECT_EQ(onlyIn(XMLParser("<a>x&#65;</a>").root).value, "A");
  EXPECT_EQ(onlyIn(XMLParser("<a>1<![CDATA[2]]></a>").root).value, "2");
}

// Promise: A text of several lines is its last line, and a line feed when it ends with a line end.
TEST(XMLParser, GivesALeafOfSeveralLinesTheLastLineOrItsEnd) {
  EXPECT_EQ(onlyIn(XMLParser("<a>1\n2</a>").root).value, "2");
  EXPECT_EQ(onlyIn(XMLParser("<a>1\r\n</a>").root).value, "\n");
}

// Promise: An empty element has the last text in front of it: the `b` of `<a> <b/></a>` is a blank.
TEST(XMLParser, GivesAnEmptyElementTheTextBeforeIt) {
  const XMLParser parser("<a> <b/></a>");
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(onlyIn(onlyIn(parser.root)).value, " ");
  const XMLParser twoTags("<a><b>1</b><c></c></a>");
  ASSERT_TRUE(twoTags.ok);
  EXPECT_EQ(onlyIn(twoTags.root).subNodes.back().value, "1");
  EXPECT_EQ(onlyIn(XMLParser("<a/>").root).value, "");
}

// Promise: An element with children has no text, even if there is text beside them.
TEST(XMLParser, DropsTheTextBesideChildren) {
  const XMLParser parser("<a>before<b>1</b>behind</a>");
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(onlyIn(parser.root).value, "");
  EXPECT_EQ(onlyIn(onlyIn(parser.root)).value, "1");
}

// Promise: White space is never trimmed.
TEST(XMLParser, TrimsNoWhiteSpace) {
  EXPECT_EQ(onlyIn(XMLParser("<a>  1\t </a>").root).value, "  1\t ");
}

// Promise: A document is read as UTF-8, whatever encoding it declares.
TEST(XMLParser, TakesUtf8WhateverIsDeclared) {
  const XMLParser parser("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xc3\xa4</a>");
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(onlyIn(parser.root).value, "\xc3\xa4");
}

// Promise: A document that is not well-formed is refused: no or two document elements, tags that do
// not match, text outside, a value without quotes, an attribute twice, an unknown entity or one
// inside itself, bytes that are no UTF-8, a zero byte.
TEST(XMLParser, RefusesWhatIsNotWellFormed) {
  const struct {
    std::string_view document;
    const char* reason;
  } documents[] = {
      {"", "no element"},
      {"   ", "no element"},
      {"text", "text outside of an element"},
      {"<a>", "no end tag"},
      {"<a></b>", "wrong end tag"},
      {"<a/><b/>", "two document elements"},
      {"<a/>text", "text behind the document element"},
      {"<a b=1/>", "value without quotes"},
      {"<a b=\"1\" b=\"2\"/>", "attribute twice"},
      {"<a>&nothing;</a>", "unknown entity"},
      {"<a>\xff</a>", "no UTF-8"},
      {std::string_view("<a>\0</a>", 8), "a zero byte"},
      {"<a>&#0;</a>", "reference to a character that XML has not"},
      {"<!DOCTYPE a [<!ENTITY b \"&b;\">]><a>&b;</a>", "entity in itself"},
  };
  for (const auto& [document, reason] : documents) {
    EXPECT_FALSE(XMLParser(document).ok) << reason;
  }
}

// Promise: A refused document leaves the tree that was read up to its error.
TEST(XMLParser, KeepsWhatItReadBeforeTheError) {
  const XMLParser parser("<a><b>1</b><c>");
  ASSERT_FALSE(parser.ok);
  EXPECT_EQ(onlyIn(parser.root).subNodes.size(), 2U);
  EXPECT_EQ(onlyIn(parser.root).subNodes.front().value, "1");
}

// Also proves [xml-depth].
TEST(XMLParser, AcceptsElementsUpToTheDepthLimit) {
  ASSERT_EQ(XMLParser::maxDepth, 64U);
  const XMLParser parser(nested(64));
  EXPECT_TRUE(parser.ok);
  EXPECT_EQ(depthOf(parser.root), 64U);
}

// Promise [xml-depth]: Elements are read up to a depth of 64, and a deeper one refuses the
// document, even one a million deep.
TEST(XMLParser, StopsAtADeeperElement) {
  const XMLParser pairs(nested(XMLParser::maxDepth + 1));
  EXPECT_FALSE(pairs.ok);
  EXPECT_EQ(depthOf(pairs.root), XMLParser::maxDepth);

  // expat reports the end of an empty element after it was stopped at its start.
  const XMLParser empty(repeat("<a>", XMLParser::maxDepth) + "<a/>" +
                        repeat("</a>", XMLParser::maxDepth));
  EXPECT_FALSE(empty.ok);
  EXPECT_EQ(depthOf(empty.root), XMLParser::maxDepth);
}

// Also proves [xml-depth].
TEST(XMLParser, SurvivesAMillionOpenElements) {
  const XMLParser parser(repeat("<a>", 1000000));
  EXPECT_FALSE(parser.ok);
  EXPECT_EQ(depthOf(parser.root), XMLParser::maxDepth);
}

// Promise [xml-fits]: Every document that fits into a request is read, as one long text or as
// 16,000 elements.
TEST(XMLParser, AcceptsTheLargestTreeOfARequest) {
  const XMLParser elements("<r>" + repeat("<a/>", 16000) + "</r>");
  EXPECT_TRUE(elements.ok);
  EXPECT_EQ(onlyIn(elements.root).subNodes.size(), 16000U);
  EXPECT_TRUE(XMLParser("<r>" + std::string(65000, 'x') + "</r>").ok);
}

TEST(XMLParser, BoundsTheNamesOfElements) {
  const XMLParser parser("<r>" + repeat("<" + std::string(100, 'a') + "/>", 30000) + "</r>");
  EXPECT_FALSE(parser.ok);
  // The root, which is not counted, and the element that went beyond.
  EXPECT_LE(bytesOf(parser.root), XMLParser::maxTreeSize + sizeof(XMLNode) + sizeof(XMLNode) + 100);
}

// Also proves [xml-memory].
TEST(XMLParser, BoundsTheTextThatEmptyElementsInherit) {
  const XMLParser parser("<r>" + std::string(30000, 'x') + repeat("<a/>", 8000) + "</r>");
  EXPECT_FALSE(parser.ok);
  EXPECT_LE(bytesOf(parser.root), XMLParser::maxTreeSize + sizeof(XMLNode));
}

// Promise [xml-memory]: A tree has at most 4 MiB of nodes, attributes and texts; a document whose
// empty elements or default attributes inherit more than that is refused.
TEST(XMLParser, AcceptsATreeOfAlmost4MiB) {
  const auto accepted = [](size_t elements) {
    return XMLParser("<r>" + std::string(30000, 'x') + repeat("<a/>", elements) + "</r>").ok;
  };
  EXPECT_TRUE(accepted(138));
  EXPECT_FALSE(accepted(140));
}

// Also proves [xml-memory].
TEST(XMLParser, BoundsTheAttributesThatElementsInherit) {
  const XMLParser parser("<!DOCTYPE r [<!ATTLIST a b CDATA \"" + std::string(30000, 'x') +
                         "\">]><r>" + repeat("<a/>", 8000) + "</r>");
  EXPECT_FALSE(parser.ok);
  EXPECT_LE(bytesOf(parser.root), XMLParser::maxTreeSize + 40000);
}

// Also proves [xml-entities].
TEST(XMLParser, ExpandsAnEntityOfTheDocument) {
  const XMLParser parser("<!DOCTYPE a [<!ENTITY b \"1\">]><a>&b;</a>");
  ASSERT_TRUE(parser.ok);
  EXPECT_EQ(onlyIn(parser.root).value, "1");
}

// Promise [xml-external]: No external entity is fetched.
TEST(XMLParser, FetchesNoExternalEntity) {
  const XMLParser parser("<!DOCTYPE a [<!ENTITY b SYSTEM \"/etc/passwd\">]><a>x&b;</a>");
  EXPECT_EQ(onlyIn(parser.root).value, "x");
}

namespace {

/// Entities that each name the one before it ten times.
std::string billionLaughs(const std::string& innermost, int levels) {
  std::string document = "<!DOCTYPE r [<!ENTITY e0 \"" + innermost + "\">";
  for (int i = 1; i <= levels; ++i) {
    document += "<!ENTITY e" + std::to_string(i) + " \"" +
                repeat("&e" + std::to_string(i - 1) + ";", 10) + "\">";
  }
  return document + "]><r>&e" + std::to_string(levels) + ";</r>";
}

}  // namespace

// Also proves [xml-entities].
TEST(XMLParser, BoundsTheExpansionOfEntities) {
  EXPECT_FALSE(XMLParser(billionLaughs("lol", 9)).ok) << "text";
  EXPECT_FALSE(XMLParser(billionLaughs("", 12)).ok) << "nothing at all";
  const XMLParser elements(billionLaughs("<a/>", 9));
  EXPECT_FALSE(elements.ok) << "elements";
  EXPECT_LE(bytesOf(elements.root), XMLParser::maxTreeSize + sizeof(XMLNode));
  EXPECT_FALSE(XMLParser(billionLaughs("<a>", 9)).ok) << "open elements";
}

// Promise [xml-entities]: Entities that a document declares are expanded, to 64 KiB or four times
// the document's length in all.
TEST(XMLParser, ExpandsADocumentTo64KiBOrToFourTimesItsLength) {
  const auto expanded = [](const std::string& text, size_t references) {
    return XMLParser("<!DOCTYPE a [<!ENTITY b \"" + std::string(1000, 'x') + "\">]><a>" + text +
                     repeat("&b;", references) + "</a>")
        .ok;
  };
  EXPECT_TRUE(expanded("", 60));
  EXPECT_FALSE(expanded("", 70)) << "more than 64 KiB";
  const std::string text(50000, 'x');
  EXPECT_TRUE(expanded(text, 140));
  EXPECT_FALSE(expanded(text, 170)) << "more than four times its length";
}

// Promise: Entities that refer to each other in a long chain end neither the process nor the stack.
TEST(XMLParser, SurvivesALongChainOfEntities) {
  std::string document = "<!DOCTYPE r [<!ENTITY e0 \"\">";
  for (int i = 1; document.size() < 64000; ++i) {
    document += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i - 1) + ";\">";
  }
  const size_t last = document.rfind("<!ENTITY ") + 9;
  document += "]><r>&" + document.substr(last, document.find(' ', last) - last) + ";</r>";
  (void)XMLParser(document);
}

// Promise: Any bytes may be posted as a document, and the next one is read correctly.
TEST(XMLParser, TakesAnyBytesAndThenTheNextDocument) {
  std::mt19937 random(20240601);
  const std::string alphabet = "<>/ab=\"'&;![]-? \r\n:x\xc3\xa4\x01";
  for (int round = 0; round < 20000; ++round) {
    std::string document;
    for (size_t length = random() % 60; length > 0; --length) {
      document += alphabet[random() % alphabet.size()];
    }
    (void)XMLParser(document);
  }
  EXPECT_TRUE(XMLParser("<a/>").ok);
}

// Promise: A document that ends early is refused, at whichever byte it ends.
TEST(XMLParser, TakesEveryBeginningOfADocument) {
  const std::string document =
      "<?xml version=\"1.0\"?>\r\n<s:Envelope xmlns:s=\"urn:x\"><s:Body><u:Get "
      "xmlns:u=\"urn:y\"><Name>a&lt;b</Name></u:Get></s:Body></s:Envelope>";
  for (size_t length = 0; length < document.size(); ++length) {
    EXPECT_FALSE(XMLParser(document.substr(0, length)).ok) << length;
  }
  EXPECT_TRUE(XMLParser(document).ok);
}

TEST(XMLParser, KeepsNothingOfTheDocumentBefore) {
  const std::string document = "<a><b/></a>";
  const std::string before[] = {
      "<x y='1'>text</x>",
      "<x>text",                                      // ends too early
      "<x></y>",                                      // no document
      nested(XMLParser::maxDepth + 1),                // given up
      "<!DOCTYPE x [<!ENTITY e 'text'>]><x>&e;</x>",  // declares an entity
      repeat(" ", 5000) + "<x>text</x>",              // too large for the same parser
      "",
  };
  for (const std::string& text : before) {
    (void)XMLParser(text);
    const XMLParser parser(document);
    ASSERT_TRUE(parser.ok) << text;
    const XMLNode& a = onlyIn(parser.root);
    EXPECT_EQ(a.name, "a") << text;
    EXPECT_TRUE(a.properties.empty()) << text;
    EXPECT_EQ(onlyIn(a).value, "") << text;
    EXPECT_FALSE(XMLParser("<a>&e;</a>").ok) << text;
  }
}
