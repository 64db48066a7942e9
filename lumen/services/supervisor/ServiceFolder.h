#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "lumen/services/supervisor/ServiceFile.h"

namespace lumen {

/// The services of the files "*.ini" in `folder`, in rising order of number. A wrong file is logged
/// and skipped, and so is one whose name or number an earlier file has, in the order of file names.
/// Numbers in `taken` are lumend's own.
[[nodiscard]] std::vector<ServiceDefinition> readServiceFolder(const std::string& folder,
                                                               const UserDatabase& users,
                                                               const std::set<uint32_t>& taken);

}  // namespace lumen
