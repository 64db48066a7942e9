#include "lumen/web/Markup.h"

#include "base/Utf8.h"

namespace lumen::web {

namespace {

constexpr const char* replacement = "\xEF\xBF\xBD";

/// Appends each character of `text` by `put`, an invalid one as the replacement character.
template <typename Put>
void eachCharacter(std::string_view text, std::string& result, Put put) {
  while (!text.empty()) {
    const lm::Character character = lm::firstCharacter(text);
    const size_t length = character.length == 0 ? 1 : character.length;
    if (character.length == 0 || lm::isControl(character.code)) {
      result += replacement;
    } else {
      put(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
}

}  // namespace

std::string markup(std::string_view text) {
  std::string result;
  eachCharacter(text, result, [&result](std::string_view character) {
    switch (character.front()) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += character;
    }
  });
  return result;
}

std::string labelValue(std::string_view text) {
  std::string result;
  eachCharacter(text, result, [&result](std::string_view character) {
    if (character == "\\" || character == "\"") result += '\\';
    result += character;
  });
  return result;
}

}  // namespace lumen::web
