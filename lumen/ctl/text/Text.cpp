#include "lumen/ctl/text/Text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "base/Utf8.h"

namespace lumenctl {

namespace {

bool isPrintable(char32_t code) {
  const auto within = [code](char32_t first, char32_t last) {
    return code >= first && code <= last;
  };
  if (lm::isControl(code)) return false;
  // Characters without a glyph and those that move their neighbours: zero width, line and paragraph
  // separators, direction marks, embeddings, overrides and isolates.
  return !(code == 0xAD || code == 0x61C || within(0x200B, 0x200F) || within(0x2028, 0x202E) ||
           within(0x2060, 0x206F) || code == 0xFEFF || within(0xFFF9, 0xFFFB) ||
           within(0xE0000, 0xE0FFF));
}

/// Of valid UTF-8.
bool beginsCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80; }

/// A moment in this machine's time zone, as strftime writes it.
std::string formatted(std::chrono::sys_seconds time, const char* format) {
  const auto seconds = static_cast<time_t>(time.time_since_epoch().count());
  tm parts{};
  std::array<char, 32> text{};
  if (localtime_r(&seconds, &parts) == nullptr) return "?";
  return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const lm::Character character = lm::firstCharacter(text);
    const size_t length = std::max<size_t>(character.length, 1);
    if (text.front() == '\\') {
      result += "\\\\";
    } else if (character.length != 0 && isPrintable(character.code)) {
      result += text.substr(0, length);
    } else {
      for (const char c : text.substr(0, length)) {
        std::array<char, 5> escape{};
        std::snprintf(escape.data(), escape.size(), "\\x%02x",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        result += escape.data();
      }
    }
    text.remove_prefix(length);
  }
  return result;
}

size_t columns(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

std::string cut(std::string_view text, size_t width) {
  const auto* const end = std::find_if(
      text.begin(), text.end(), [&width](char c) { return beginsCharacter(c) && width-- == 0; });
  return {text.begin(), end};
}

std::vector<std::string> textsOf(const std::vector<lumen::Ipv4Address>& addresses) {
  std::vector<std::string> texts;
  texts.reserve(addresses.size());
  for (const lumen::Ipv4Address address : addresses) texts.push_back(address.text());
  return texts;
}

std::string duration(std::chrono::seconds time) {
  using std::chrono::seconds;
  struct Unit {
    seconds length;
    const char* name;
  };
  constexpr std::array<Unit, 4> units = {{{std::chrono::days(1), " d"},
                                          {std::chrono::hours(1), " h"},
                                          {std::chrono::minutes(1), " min"},
                                          {seconds(1), " s"}}};
  size_t largest = 0;
  while (largest + 1 < units.size() && time < units[largest].length) ++largest;
  std::string result = std::to_string(time / units[largest].length) + units[largest].name;
  if (largest + 1 == units.size()) return result;
  const seconds::rep rest = time % units[largest].length / units[largest + 1].length;
  if (rest != 0) result += " " + std::to_string(rest) + units[largest + 1].name;
  return result;
}

std::string localTime(std::chrono::sys_seconds time) {
  return formatted(time, "%Y-%m-%d %H:%M:%S");
}

std::string localTimeOfDay(std::chrono::sys_time<std::chrono::milliseconds> time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::string milliseconds = std::to_string(1000 + (time - seconds).count()).substr(1);
  return formatted(seconds, "%H:%M:%S") + "." + milliseconds;
}

std::string amount(uint64_t bytes) {
  constexpr std::array<const char*, 7> units = {" B", " kB", " MB", " GB", " TB", " PB", " EB"};
  if (bytes < 1000) return std::to_string(bytes) + units[0];
  size_t unit = 1;
  uint64_t scale = 1000;
  while (bytes / scale >= 1000) {
    scale *= 1000;
    ++unit;
  }
  const uint64_t tenths = bytes / (scale / 10);
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + units.at(unit);
}

std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
  std::string result;
  for (const std::string& text : texts) {
    if (!result.empty()) result += separator;
    result += text;
  }
  return result;
}

std::string yesOrNo(bool value) { return value ? "yes" : "no"; }

std::string onOrOff(bool value) { return value ? "on" : "off"; }

}  // namespace lumenctl
