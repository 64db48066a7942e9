#pragma once

#include <string>
#include <string_view>

/// Colours on a terminal, few of them, each with a meaning.
namespace lumenctl {

enum class Colour { none, heading, good, warning, bad };

/// Whether output to a `terminal`, or not, shall have them. The others are the environment
/// variables NO_COLOR, see no-color.org, and TERM; null: not set.
[[nodiscard]] bool wantsColours(bool terminal, const char* noColor, const char* term);

/// `text` between the control sequences (ECMA-48, SGR) that set its colour and take it back.
[[nodiscard]] std::string coloured(std::string_view text, Colour colour);

/// What the word for a state of the gateway, of a service, an interface or a port means: good when
/// it works, a warning when somebody made it not work, bad when it ought to work.
[[nodiscard]] Colour colourOfState(std::string_view state);

}  // namespace lumenctl
