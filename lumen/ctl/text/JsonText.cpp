#include "lumen/ctl/text/JsonText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "base/Utf8.h"

namespace lumenctl {

std::string jsonText(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const lm::Character character = lm::firstCharacter(text);
    if (character.length == 0) {
      result += "\xEF\xBF\xBD";
    } else if (character.code == '"' || character.code == '\\') {
      result += '\\';
      result += text.front();
    } else if (lm::isControl(character.code) || character.code == 0x2028 ||
               character.code == 0x2029) {
      const auto unit = static_cast<uint16_t>(character.code);  // none of these needs two of UTF-16
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", unit);
      result += escape.data();
    } else {
      result += text.substr(0, character.length);
    }
    text.remove_prefix(std::max<size_t>(character.length, 1));
  }
  return result + "\"";
}

}  // namespace lumenctl
