#include "support/TempDir.h"

#include <algorithm>

namespace lm::test {

std::vector<std::string> TempDir::names() const {
  std::vector<std::string> result;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    result.push_back(entry.path().filename().string());
  }
  std::sort(result.begin(), result.end());
  return result;
}

}  // namespace lm::test
