#include "lumen/services/system/netlink/ControlGroups.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace lumen {

namespace {

/// The names of the folders in the folder.
std::vector<std::string> foldersIn(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    if (entry->d_type == DT_DIR && name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

}  // namespace

std::string nameOfControlGroup(const std::string& folder, uint64_t number, size_t limit) {
  std::vector<std::string> unread = {folder};
  while (!unread.empty()) {
    const std::string parent = std::move(unread.back());
    unread.pop_back();
    for (const std::string& name : foldersIn(parent)) {
      if (limit-- == 0) return "";
      std::string path = parent;
      path.append("/").append(name);
      struct stat info = {};
      if (stat(path.c_str(), &info) == 0 && info.st_ino == number) return name;
      unread.push_back(std::move(path));
    }
  }
  return "";
}

}  // namespace lumen
