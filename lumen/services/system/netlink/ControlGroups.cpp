#include "lumen/services/system/netlink/ControlGroups.h"

#include <sys/stat.h>

#include <utility>
#include <vector>

#include "base/Folder.h"

namespace lumen {

namespace {

/// The names of the folders in the folder.
std::vector<std::string> foldersIn(const std::string& path) {
  std::vector<std::string> names;
  Folder folder(path);
  while (const dirent* const entry = folder.next()) {
    if (entry->d_type == DT_DIR) names.emplace_back(entry->d_name);
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
