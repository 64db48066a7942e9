// HTTP messages: what was read of one is written as it was read, and whoever sees a message in
// pieces says of each piece what the parser says of the whole.

#include <algorithm>
#include <string>

#include "base/Text.h"
#include "fuzz/Fuzz.h"
#include "http/HTTPMessage.h"
#include "http/MessageLines.h"
#include "http/RequestScanner.h"

namespace {

using fuzz::require;

// Each comparison parses everything again.
constexpr size_t maxComparisons = 64;

bool isLine(std::string_view text) { return text.find('\r') == std::string_view::npos; }

void checkFields(const HTTPMessage& message, size_t inputSize) {
  require(isLine(message.startLine), "a start line is one line");
  require(message.fieldNames.size() == message.fieldValues.size(), "each name has its value");
  size_t bytes = message.startLine.size() + message.body.size();
  for (size_t i = 0; i < message.fieldNames.size(); ++i) {
    const std::string& name = message.fieldNames[i];
    const std::string& value = message.fieldValues[i];
    require(isLine(name) && isLine(value), "a field is one line");
    require(name == toUpper(name), "names are in upper case");
    require(name.find(':') == std::string::npos, "a name ends at the first colon");
    require(!value.starts_with(' '), "leading blanks are dropped");
    require(message.hasField(name), "every field is found");
    const auto first = std::ranges::find(message.fieldNames, name) - message.fieldNames.begin();
    require(message.getField(name) == message.fieldValues[static_cast<size_t>(first)],
            "of fields with one name the first is found");
    bytes += name.size() + value.size();
  }
  require(bytes <= inputSize, "nothing is made up");
}

void checkWriting(const HTTPMessage& message) {
  const HTTPMessage again(message.get());
  require(again.startLine == message.startLine, "the start line is written as it was read");
  require(again.fieldNames == message.fieldNames && again.fieldValues == message.fieldValues,
          "fields are written as they were read");
  require(again.body == message.body, "the body is written as it was read");
  require(again.complete || !message.complete, "what is written is as complete as what was read");
}

void checkRequestLine(const std::string& startLine) {
  const RequestLine line = parseRequestLine(startLine);
  require(line.method.find(' ') == std::string::npos, "a method has no blank");
  require(line.url.find(" HTTP/") == std::string::npos, "a URL ends before the version");
  const std::string start = line.url.empty() ? line.method : line.method + ' ' + line.url;
  require(startLine.starts_with(start), "method and URL are what the line starts with");
}

void checkPieces(std::string_view text) {
  RequestScanner ofBytes;
  RequestScanner ofLines;
  size_t comparisons = 0;
  for (size_t end = 1; end <= text.size(); ++end) {
    const std::string_view received = text.substr(0, end);
    const bool complete = ofBytes.complete(received);
    const bool last = end == text.size();
    const bool atLineEnd = received.ends_with('\r') || received.ends_with('\n');
    if (!last && (comparisons >= maxComparisons || !(complete || atLineEnd))) continue;
    ++comparisons;
    require(complete == HTTPMessage(received).complete, "byte by byte is as whole");
    require(complete == ofLines.complete(received), "line by line is as byte by byte");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = fuzz::text(data, size);
  const HTTPMessage message(text);
  checkFields(message, size);
  checkWriting(message);
  checkRequestLine(message.startLine);
  checkPieces(text);
  return 0;
}
