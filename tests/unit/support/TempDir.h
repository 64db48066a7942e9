#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

namespace lm::test {

/// An empty directory for one test, removed with everything in it. A test program that cannot make
/// one ends at once: a path without it would name a file of the machine.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

  void write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
  }
  [[nodiscard]] std::string read(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  [[nodiscard]] bool has(const std::string& name) const {
    std::error_code ignored;
    return std::filesystem::exists(file(name), ignored);
  }
  void makeDirectory(const std::string& name) const {
    std::error_code ignored;
    std::filesystem::create_directory(file(name), ignored);
  }
  /// The names of all files, sorted.
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  std::string path_;
};

}  // namespace lm::test
