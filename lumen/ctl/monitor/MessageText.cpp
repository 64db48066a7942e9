#include "lumen/ctl/monitor/MessageText.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>
#include <variant>
#include <vector>

#include "lumen/ctl/text/Text.h"
#include "lumen/runtime/Fields.h"
#include "lumen/values/Ipv4.h"
#include "platform/Keys.h"
#include "platform/wire/History.h"

namespace lumenctl {

namespace {

using Json = nlohmann::ordered_json;

const char* typeName(uint32_t key) {
  switch (key & lm::type::mask & ~lm::type::arrayFlag) {
    case lm::type::boolean:
      return "bool";
    case lm::type::u32:
      return "u32";
    case lm::type::u64:
      return "u64";
    case lm::type::string:
      return "string";
    default:
      return "message";
  }
}

std::string label(uint32_t key) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%s%s 0x%08x", typeName(key),
                (key & lm::type::arrayFlag) != 0 ? "[]" : "", static_cast<unsigned>(key));
  return text.data();
}

/// What a change in the history is about: in a record its path, in a request its source.
Subject changed(const lm::message& change) {
  const auto& path = change.get_u32_array_ref(lm::history::key::path);
  return Subject::of(path.empty() ? change.get_u32_array_ref(lm::key::source) : path);
}

class Decoder {
 public:
  Decoder(Subject subject, Meaning meaning) : subject_(subject), meaning_(meaning) {}

  template <typename T>
  Json operator()(const T& value) const {
    return value;
  }
  Json operator()(uint32_t value) const {
    if (meaning_ == Meaning::address) return lumen::Ipv4Address::fromNumber(value).text();
    if (meaning_ == Meaning::command) return commandName(subject_, value);
    return value;
  }
  Json operator()(const lm::message& value) const { return fields(value); }
  template <typename T>
  Json operator()(const std::vector<T>& values) const {
    Json result = Json::array();
    for (const T& value : values) result.push_back((*this)(value));
    return result;
  }

  template <typename Predicate>
  [[nodiscard]] Json fields(const lm::message& m, Predicate isWanted) const {
    Json result = Json::object();
    for (const auto& [key, value] : m.fields()) {
      if (!isWanted(key)) continue;
      const FieldName* const known = findField(subject_, key);
      const Meaning meaning = known == nullptr ? Meaning::plain : known->meaning;
      const Decoder inner(meaning == Meaning::undo ? changed(m) : subject_, meaning);
      // No key occurs twice; a lookup of each name would take quadratic time.
      result.get_ref<Json::object_t&>().emplace_back(known == nullptr ? label(key) : known->name,
                                                     std::visit(inner, value));
    }
    return result;
  }

 private:
  [[nodiscard]] Json fields(const lm::message& m) const {
    return fields(m, [](uint32_t) { return true; });
  }

  Subject subject_;
  Meaning meaning_;
};

bool isOneWord(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return c > ' ' && c != 0x7F && c != '"' && c != '=' && c != ',' && c != '[' && c != ']' &&
           c != '{' && c != '}' && c != '\\';
  });
}

std::string text(const Json& value) {
  if (value.is_string()) return quoted(value.get_ref<const std::string&>());
  if (value.is_object()) return "{" + onOneLine(value) + "}";
  if (!value.is_array()) return value.dump();
  std::vector<std::string> elements;
  for (const Json& element : value) elements.push_back(text(element));
  return "[" + joined(elements) + "]";
}

}  // namespace

nlohmann::ordered_json decoded(const lm::message& m, Subject subject) {
  return Decoder(subject, Meaning::plain).fields(m, [](uint32_t key) {
    return !lm::isTransportField(key);
  });
}

std::string onOneLine(const nlohmann::ordered_json& fields) {
  std::string line;
  for (const auto& [name, value] : fields.items()) {
    if (!line.empty()) line += ' ';
    line += name + "=" + text(value);
  }
  return line;
}

std::string quoted(const std::string& text) {
  std::string shown = printable(text);
  if (isOneWord(shown)) return shown;
  std::string result = "\"";
  for (const char c : shown) {
    if (c == '"') result += '\\';
    result += c;
  }
  return result + '"';
}

}  // namespace lumenctl
