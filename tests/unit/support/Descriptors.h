#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace lm::test {

/// How many descriptors this process has open.
inline size_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace lm::test
