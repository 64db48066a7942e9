#pragma once

#include <string>

namespace pcp {

/// Gives up every system call and file that this program does not need. `store` is its store
/// directory.
void confine(const std::string& store);

}  // namespace pcp
