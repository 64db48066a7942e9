#include "lumen/ctl/screen/Colours.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

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

Colour colourOfState(std::string_view state) {
  constexpr std::array<std::pair<std::string_view, Colour>, 18> words = {{
      {"on", Colour::good},
      {"running", Colour::good},
      {"open", Colour::good},
      {"in use", Colour::good},
      {"starting", Colour::warning},
      {"leaving", Colour::warning},
      {"off", Colour::warning},
      {"down", Colour::warning},
      {"disabled", Colour::warning},
      {"closed", Colour::warning},
      {"stale", Colour::warning},
      {"away", Colour::bad},
      {"no link", Colour::bad},
      {"waiting", Colour::bad},
      {"crashed", Colour::bad},
      {"not answering", Colour::bad},
      {"not installed", Colour::bad},
      {"not reachable", Colour::bad},
  }};
  const auto* const it =
      std::find_if(words.begin(), words.end(), [&](const auto& w) { return w.first == state; });
  return it == words.end() ? Colour::none : it->second;
}

}  // namespace lumenctl
