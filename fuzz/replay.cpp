// The main of a fuzz target where there is no libFuzzer: runs it with each file that is given, or
// that is in a directory that is given.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "platform/Fd.h"

namespace {

std::vector<std::filesystem::path> filesAt(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(path)) files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

bool replay(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string input{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) return false;
  std::fprintf(stderr, "%s: %zu bytes\n", file.c_str(), input.size());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  // What the code under test logs.
  const lm::Fd nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(nothing.get(), STDOUT_FILENO);

  size_t replayed = 0;
  for (const char* argument : std::span(arguments, static_cast<size_t>(count)).subspan(1)) {
    for (const auto& file : filesAt(argument)) {
      if (!replay(file)) {
        std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
        return 1;
      }
      ++replayed;
    }
  }
  std::fprintf(stderr, "%zu inputs\n", replayed);
  return replayed > 0 ? 0 : 1;
}
