#pragma once

#include <concepts>
#include <string>
#include <string_view>

/// JSON (RFC 8259) as text, for a program without a library for it.
namespace lumenctl {

/// A string, with its quotation marks. What is not valid UTF-8 becomes U+FFFD.
[[nodiscard]] std::string jsonText(std::string_view text);
[[nodiscard]] inline std::string jsonText(const std::string& text) {
  return jsonText(std::string_view(text));
}
[[nodiscard]] inline std::string jsonText(const char* text) {
  return jsonText(std::string_view(text));
}
[[nodiscard]] inline std::string jsonText(bool value) { return value ? "true" : "false"; }
template <std::integral T>
[[nodiscard]] std::string jsonText(T number) {
  return std::to_string(number);
}

/// An object or a list, element by element, in their order.
class JsonObject {
 public:
  template <typename T>
  JsonObject& add(std::string_view key, const T& value) {
    return addJson(key, jsonText(value));
  }
  /// `json` is JSON already.
  JsonObject& addJson(std::string_view key, std::string_view json) {
    text_ += (text_.empty() ? "" : ",") + jsonText(key) + ":";
    text_ += json;
    return *this;
  }
  [[nodiscard]] std::string text() const { return "{" + text_ + "}"; }

 private:
  std::string text_;
};

class JsonList {
 public:
  void addJson(std::string_view json) {
    if (!text_.empty()) text_ += ',';
    text_ += json;
  }
  [[nodiscard]] std::string text() const { return "[" + text_ + "]"; }
  [[nodiscard]] bool empty() const { return text_.empty(); }

 private:
  std::string text_;
};

}  // namespace lumenctl
