#include "xml/XMLParser.h"

// expat declares its limits on entity expansion only when XML_DTD is defined.
#define XML_DTD
#include <expat.h>
#include <sys/random.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

/// A document may expand to this many bytes, or to this many times its own length.
constexpr unsigned long long freeExpansion = 64ULL * 1024;
constexpr float maxExpansion = 4;

struct FreeParser {
  void operator()(XML_Parser expat) const { XML_ParserFree(expat); }
};
using ParserHandle = std::unique_ptr<XML_ParserStruct, FreeParser>;

ParserHandle makeParser() { return ParserHandle(XML_ParserCreate("UTF-8")); }

/// A document of at most this many bytes is parsed by the parser of the one before: to make one
/// costs more than to parse a control request. What expat keeps for the next document then stays
/// small.
constexpr size_t smallDocument = 4096;

/// The secret that keeps the order of expat's hash tables from a client who chooses names. expat
/// would ask the system for one for each document.
unsigned long hashSalt() {
  static const unsigned long salt = [] {
    unsigned long random = 0;
    return getrandom(&random, sizeof random, 0) == sizeof random ? random : 0;  // 0: expat's own
  }();
  return salt;
}

/// The parser for small documents, ready for the next one; null when there is no memory.
XML_Parser reusedParser() {
  static ParserHandle parser;
  if (!parser) {
    parser = makeParser();
  } else {
    XML_ParserReset(parser.get(), "UTF-8");
  }
  return parser.get();
}

/// The state of one parse; expat's user data.
class Parse {
 public:
  explicit Parse(XMLNode& root) {
    stack.reserve(XMLParser::maxDepth + 1);
    stack.push_back(&root);
  }

  [[nodiscard]] bool run(std::string_view document);

 private:
  static void XMLCALL startTag(void* parse, const XML_Char* name, const XML_Char** attributes) {
    static_cast<Parse*>(parse)->start(name, attributes);
  }
  static void XMLCALL endTag(void* parse, const XML_Char* /*name*/) {
    static_cast<Parse*>(parse)->end();
  }
  static void XMLCALL characterData(void* parse, const XML_Char* data, int length) {
    auto* self = static_cast<Parse*>(parse);
    if (!self->stopped_) self->text.assign(data, static_cast<size_t>(length));
  }

  void start(const XML_Char* name, const XML_Char** attributes);
  void end();
  /// Adds to the size of the tree. When the tree is too large, stops the parse and returns false.
  bool grow(size_t bytes);
  void stop();

  XML_Parser expat_ = nullptr;
  std::vector<XMLNode*> stack;  // open elements, the innermost last, on top of the root
  bool textPending = false;     // a start tag was seen, and its text is not stored yet
  std::string text;             // the last piece of character data
  size_t treeSize_ = 0;
  bool stopped_ = false;  // expat may still report an end tag after it was stopped
};

bool Parse::run(std::string_view document) {
  const bool small = document.size() <= smallDocument;
  const ParserHandle own = small ? ParserHandle() : makeParser();
  expat_ = small ? reusedParser() : own.get();
  if (expat_ == nullptr || document.size() > std::numeric_limits<int>::max()) return false;
  XML_SetHashSalt(expat_, hashSalt());
  XML_SetUserData(expat_, this);
  XML_SetElementHandler(expat_, startTag, endTag);
  XML_SetCharacterDataHandler(expat_, characterData);
  XML_SetBillionLaughsAttackProtectionActivationThreshold(expat_, freeExpansion);
  XML_SetBillionLaughsAttackProtectionMaximumAmplification(expat_, maxExpansion);
  return XML_Parse(expat_, document.data(), static_cast<int>(document.size()), XML_TRUE) ==
         XML_STATUS_OK;
}

void Parse::start(const XML_Char* name, const XML_Char** attributes) {
  if (stopped_) return;
  if (stack.size() > XMLParser::maxDepth) {
    stop();
    return;
  }
  XMLNode& node = stack.back()->addSubNode(XMLNode(name));
  stack.push_back(&node);
  textPending = true;
  if (!grow(sizeof(XMLNode) + node.name.size())) return;
  for (; *attributes != nullptr; attributes += 2) {
    node.addProperty(attributes[0], attributes[1]);
    const XMLProp& property = node.properties.back();
    if (!grow(sizeof(XMLProp) + property.name.size() + property.value.size())) return;
  }
}

void Parse::end() {
  if (stopped_) return;
  if (textPending) {
    // Every empty element after this one inherits the text, so its copies can add up.
    if (!grow(text.size())) return;
    stack.back()->value = text;
    textPending = false;
  }
  stack.pop_back();
}

bool Parse::grow(size_t bytes) {
  treeSize_ += bytes;
  if (treeSize_ > XMLParser::maxTreeSize) stop();
  return !stopped_;
}

void Parse::stop() {
  stopped_ = true;
  XML_StopParser(expat_, XML_FALSE);
}

}  // namespace

XMLParser::XMLParser(std::string_view document) { ok = Parse(root).run(document); }
