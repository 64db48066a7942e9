#pragma once

#include <string>
#include <string_view>

/// Colours on a terminal, few of them, each with a meaning.
namespace lumenctl {

enum class Colour { none, heading, good, warning, bad };

/// Whether output is coloured. `terminal`: it goes to one. `noColor` and `term` are the environment
/// variables NO_COLOR (no-color.org) and TERM; null: not set.
[[nodiscard]] bool wantsColours(bool terminal, const char* noColor, const char* term);

/// `text` between the control sequences (ECMA-48, SGR) that set its colour and reset it.
[[nodiscard]] std::string coloured(std::string_view text, Colour colour);

/// A word for a state in the colour that shows what it means.
struct StateWord {
  const char* text = "";
  Colour colour = Colour::none;
};

}  // namespace lumenctl
