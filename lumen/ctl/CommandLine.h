#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/router/Client.h"

namespace lumenctl {

/// Runs the command that `arguments` (without the program's name) ask for. Answers go to `out`,
/// errors to `err`. Returns the exit status: 0, 1 when the platform refused or cannot be
/// reached, 2 when the arguments are wrong.
[[nodiscard]] int run(const std::vector<std::string>& arguments, const Connect& connect,
                      Machine& machine, std::ostream& out, std::ostream& err);

}  // namespace lumenctl
