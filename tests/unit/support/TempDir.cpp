#include "support/TempDir.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>

namespace lm::test {

TempDir::TempDir()
    : path_((std::filesystem::temp_directory_path() / "palinode-test-XXXXXX").string()) {
  if (mkdtemp(path_.data())) return;
  perror(path_.c_str());
  abort();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::names() const {
  std::vector<std::string> result;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    result.push_back(entry.path().filename().string());
  }
  std::sort(result.begin(), result.end());
  return result;
}

}  // namespace lm::test
