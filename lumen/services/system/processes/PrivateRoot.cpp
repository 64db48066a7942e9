#include "lumen/services/system/processes/PrivateRoot.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "base/Folder.h"
#include "platform/Fd.h"

namespace lumen {

namespace {

constexpr const char* mountPoint = "/lumen";

// Where the new root is assembled: every system has it, and no program lies there.
constexpr const char* workplace = "/dev";

Failure failed(const std::string& what) { return {what + ": " + strerror(errno)}; }

/// An entry of "/", to be made again under the same name.
struct Entry {
  std::string name;
  mode_t mode = 0;
  std::string link;  // where a symbolic link points
  lm::Fd tree;       // everything else: the mounts from there on, cloned
};

Result<Entry> readEntry(const std::string& name) {
  const std::string path = "/" + name;
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) return failed(path);
  Entry entry;
  entry.name = name;
  entry.mode = info.st_mode;
  if (S_ISLNK(info.st_mode)) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) return failed(path);
    entry.link.assign(target, static_cast<size_t>(length));
  } else {
    entry.tree.reset(
        open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    if (!entry.tree.valid()) return failed(path);
  }
  return entry;
}

Result<std::vector<Entry>> readRoot() {
  Folder root("/");
  if (!root.valid()) return failed("/");
  std::vector<Entry> entries;
  while (const dirent* const found = root.next()) {
    Result<Entry> entry = readEntry(found->d_name);
    if (!entry) return entry.failure();
    entries.push_back(std::move(*entry));
  }
  return entries;
}

// The working directory is the new root.
Result<void> placeEntry(const Entry& entry) {
  const char* const name = entry.name.c_str();
  if (S_ISLNK(entry.mode)) {
    if (symlink(entry.link.c_str(), name) != 0) return failed(entry.name);
    return {};
  }
  if (S_ISDIR(entry.mode)) {
    if (mkdir(name, 0755) != 0) return failed(entry.name);
  } else {
    const lm::Fd made(open(name, O_CREAT | O_EXCL | O_CLOEXEC | O_WRONLY, 0600));
    if (!made.valid()) return failed(entry.name);
  }
  if (move_mount(entry.tree.get(), "", AT_FDCWD, name, MOVE_MOUNT_F_EMPTY_PATH) != 0) {
    return failed(entry.name);
  }
  return {};
}

// A new root with the entries of the old one and a mount point.
Result<void> makeRootWithMountPoint() {
  const Result<std::vector<Entry>> entries = readRoot();
  if (!entries) return entries.failure();
  if (mount("tmpfs", workplace, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0) {
    return failed("tmpfs");
  }
  if (chdir(workplace) != 0) return failed(workplace);
  for (const Entry& entry : *entries) {
    if (auto placed = placeEntry(entry); !placed) return placed;
  }
  if (mkdir(mountPoint + 1, 0755) != 0) return failed(mountPoint);
  // The old root now lies on top of the new one; detach it.
  if (syscall(SYS_pivot_root, ".", ".") != 0) return failed("pivot_root");
  if (umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) return failed("/");
  return {};
}

}  // namespace

Result<void> enterPrivateRoot(const std::string& directory) {
  const std::unique_ptr<char, void (*)(void*)> whole(realpath(directory.c_str(), nullptr), free);
  if (whole == nullptr) return failed(directory);
  struct stat info = {};
  if (stat(whole.get(), &info) != 0) return failed(directory);
  if (!S_ISDIR(info.st_mode)) return Failure{directory + ": is no directory"};
  if ((info.st_mode & S_IXOTH) == 0) {
    return Failure{directory + ": services run as other users and cannot look into it (chmod 755)"};
  }
  if (unshare(CLONE_NEWNS) != 0) return failed("mount namespace");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed("/");
  if (access(mountPoint, F_OK) != 0) {
    if (auto made = makeRootWithMountPoint(); !made) return made;
  }
  if (mount(whole.get(), mountPoint, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    return failed(mountPoint);
  }
  return {};
}

Result<void> makeDirectory(const std::string& path, unsigned user, unsigned group, unsigned mode) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return failed(path);
  const lm::Fd made(open(path.c_str(), O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (!made.valid() || fchown(made.get(), user, group) != 0 || fchmod(made.get(), mode) != 0) {
    return failed(path);
  }
  return {};
}

}  // namespace lumen
