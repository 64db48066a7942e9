#include "lumen/ctl/screen/Colours.h"

#include <cstring>

namespace lumenctl {

namespace {

const char* sequence(Colour colour) {
  switch (colour) {
    case Colour::heading:
      return "\x1b[1m";
    case Colour::good:
      return "\x1b[32m";
    case Colour::warning:
      return "\x1b[33m";
    case Colour::bad:
      return "\x1b[31m";
    case Colour::none:
      break;
  }
  return "";
}

}  // namespace

bool wantsColours(bool terminal, const char* noColor, const char* term) {
  const auto isSet = [](const char* variable) { return variable != nullptr && *variable != '\0'; };
  return terminal && !isSet(noColor) && isSet(term) && std::strcmp(term, "dumb") != 0;
}

std::string coloured(std::string_view text, Colour colour) {
  if (colour == Colour::none || text.empty()) return std::string(text);
  return sequence(colour) + std::string(text) + "\x1b[0m";
}

}  // namespace lumenctl
