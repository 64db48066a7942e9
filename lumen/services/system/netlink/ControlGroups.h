#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumen {

/// The name of the control group with this number, which is the inode of its folder, anywhere below
/// `folder`; "" when it is not among the first `limit`, by default far more than a router has.
[[nodiscard]] std::string nameOfControlGroup(const std::string& folder, uint64_t number,
                                             size_t limit = 4096);

}  // namespace lumen
