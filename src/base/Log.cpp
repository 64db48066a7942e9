#include "base/Log.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "base/Utf8.h"

namespace {

/// In bytes. LAN hosts choose part of what is logged, and the journal limits only the number of
/// lines.
constexpr size_t maxLine = 1024;

}  // namespace

void writeLog(std::string line) {
  if (line.size() > maxLine) line.replace(maxLine, std::string::npos, "...");
  for (size_t i = 0; i < line.size();) {
    const lm::Character character = lm::firstCharacter(std::string_view(line).substr(i));
    const size_t length = std::max<size_t>(character.length, 1);
    if (character.length == 0 || lm::isControl(character.code))
      line.replace(i, length, length, '?');
    i += length;
  }
  line.push_back('\n');
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}
