#include "http/RequestScanner.h"

#include <algorithm>

#include "base/Text.h"
#include "http/HeaderLine.h"

bool RequestScanner::complete(std::string_view received) {
  while ((state == State::startLine || state == State::headers) && takeLine(received)) {
  }
  if (state != State::body) return false;
  const size_t bodySize = received.size() > lineStart ? received.size() - lineStart : 0;
  return !length || *length == bodySize;
}

bool RequestScanner::takeLine(std::string_view received) {
  const size_t end = received.find('\r', scanned);
  if (end == std::string_view::npos) {
    scanned = std::max(scanned, received.size());
    return false;
  }
  const std::string_view line = received.substr(lineStart, end - lineStart);
  const bool first = state == State::startLine;
  // Behind a carriage return one byte is dropped, which may be still to come.
  lineStart = scanned = end + 2;
  if (first) {
    state = State::headers;
  } else if (line.empty()) {
    state = State::body;
  } else if (const auto header = parseHeaderLine(line); !header) {
    state = State::never;
  } else if (!length && toUpper(header->name) == "CONTENT-LENGTH") {
    length = strtouint(header->value);
  }
  return true;
}
