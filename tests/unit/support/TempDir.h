#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

namespace lm::test {

/// An empty directory of its own for a test, removed with all that is in it.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "palinode-test-XXXXXX").string();
    if (mkdtemp(name.data())) path_ = name;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

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
