#include "http/RequestScanner.h"

#include <algorithm>

#include "base/Text.h"
#include "http/MessageLines.h"

bool RequestScanner::complete(std::string_view received) {
  while ((state_ == State::startLine || state_ == State::headers) && takeLine(received)) {
  }
  if (state_ != State::body) return false;
  const size_t bodySize = received.size() > lineStart_ ? received.size() - lineStart_ : 0;
  return !length_ || *length_ == bodySize;
}

bool RequestScanner::takeLine(std::string_view received) {
  const size_t end = received.find('\r', scanned_);
  if (end == std::string_view::npos) {
    scanned_ = std::max(scanned_, received.size());
    return false;
  }
  const std::string_view line = received.substr(lineStart_, end - lineStart_);
  const bool first = state_ == State::startLine;
  // The byte after the carriage return is dropped, even if it has not arrived yet.
  lineStart_ = scanned_ = end + 2;
  if (first) {
    state_ = State::headers;
  } else if (line.empty()) {
    state_ = State::body;
  } else if (const auto header = parseHeaderLine(line); !header) {
    state_ = State::never;
  } else if (!length_ && toUpper(header->name) == "CONTENT-LENGTH") {
    length_ = strtouint(header->value);
  }
  return true;
}
