#pragma once

#include <dirent.h>

#include <memory>
#include <string>
#include <string_view>

/// An open folder, whose entries are read one by one.
class Folder {
 public:
  /// Opens it. When that fails, errno says why.
  explicit Folder(const std::string& path) : directory_(opendir(path.c_str())) {}

  [[nodiscard]] bool valid() const { return directory_ != nullptr; }

  /// The next entry, in no order, without "." and ".."; null after the last one, and when the
  /// folder is not open. It is valid until the next call.
  [[nodiscard]] const dirent* next() {
    while (const dirent* const entry = directory_ ? readdir(directory_.get()) : nullptr) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") return entry;
    }
    return nullptr;
  }

  /// From here on next() begins with the first entry again, and sees what was made since.
  void rewind() {
    if (directory_) rewinddir(directory_.get());
  }

 private:
  struct Close {
    void operator()(DIR* directory) const { closedir(directory); }
  };
  std::unique_ptr<DIR, Close> directory_;
};
