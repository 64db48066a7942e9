#include "http/HTTPMessage.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>

#include "base/CRLF.h"
#include "base/Text.h"
#include "http/MessageLines.h"

namespace {

constexpr std::string_view fieldSeparator = ": ";

/// Few messages have more fields.
constexpr size_t usualFields = 8;

const char* reasonPhrase(HTTPStatus status) {
  switch (status) {
    case HTTP_OK:
      return "OK";
    case HTTP_BAD_REQUEST:
      return "Bad Request";
    case HTTP_NOT_FOUND:
      return "Not Found";
    case HTTP_PRECONDITION_FAILED:
      return "Precondition Failed";
    case HTTP_INTERNAL_SERVER_ERROR:
      return "Internal Server Error";
    case HTTP_NOT_IMPLEMENTED:
      return "Not Implemented";
  }
  return "";
}

void drop(std::string_view& text, size_t bytes) {
  text.remove_prefix(std::min(bytes, text.size()));
}

/// Removes the next line and the two bytes of its end from the front of `text`. None when there is
/// no line end.
std::optional<std::string_view> takeLine(std::string_view& text) {
  const size_t end = text.find('\r');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view line = text.substr(0, end);
  drop(text, end + 2);
  return line;
}

}  // namespace

HTTPMessage::HTTPMessage(std::string_view text) {
  const auto first = takeLine(text);
  if (!first) return;
  startLine = *first;
  while (text.empty() || text.front() != '\r') {
    const auto line = takeLine(text);
    if (!line) return;
    const auto header = parseHeaderLine(*line);
    if (!header) return;
    addField(header->name, std::string(header->value));
  }
  drop(text, 2);
  body = text;
  const std::string* length = find("CONTENT-LENGTH");
  complete = length == nullptr || strtouint(*length) == body.size();
}

HTTPMessage::HTTPMessage(HTTPStatus status)
    : startLine("HTTP/1.1 " + inttostr(status) + " " + reasonPhrase(status)), complete(true) {}

void HTTPMessage::addField(std::string_view name, std::string value) {
  if (fieldNames.empty()) {
    fieldNames.reserve(usualFields);
    fieldValues.reserve(usualFields);
  }
  fieldNames.push_back(toUpper(name));
  fieldValues.push_back(std::move(value));
}

void HTTPMessage::addDate(time_t t) {
  const time_t seconds = t != 0 ? t : time(nullptr);
  std::array<char, 32> text = {};
  tm calendar = {};
  if (gmtime_r(&seconds, &calendar) != nullptr) {
    strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &calendar);
  }
  addField("DATE", text.data());
}

std::string HTTPMessage::getField(std::string_view name) const {
  const std::string* value = find(name);
  return value != nullptr ? *value : std::string();
}

bool HTTPMessage::hasField(std::string_view name) const { return find(name) != nullptr; }

std::string HTTPMessage::get() const {
  size_t size = startLine.size() + CRLF.size() + CRLF.size() + body.size();
  for (size_t i = 0; i < fieldNames.size(); ++i) {
    size += fieldNames[i].size() + fieldSeparator.size() + fieldValues[i].size() + CRLF.size();
  }
  std::string text;
  text.reserve(size);
  text.append(startLine).append(CRLF);
  for (size_t i = 0; i < fieldNames.size(); ++i) {
    text.append(fieldNames[i]).append(fieldSeparator).append(fieldValues[i]).append(CRLF);
  }
  return text.append(CRLF).append(body);
}

const std::string* HTTPMessage::find(std::string_view name) const {
  const auto found = std::find(fieldNames.begin(), fieldNames.end(), toUpper(name));
  if (found == fieldNames.end()) return nullptr;
  return &fieldValues[static_cast<size_t>(found - fieldNames.begin())];
}
