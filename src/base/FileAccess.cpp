#include "base/FileAccess.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/Log.h"

namespace {

constexpr bool confined = PALINODE_CONFINEMENT;

// linux/landlock.h of newer kernels has these.
constexpr uint64_t truncateFile = 1U << 14;
constexpr uint64_t controlDevice = 1U << 15;
constexpr uint64_t scopeAbstractSockets = 1U << 0;
constexpr uint64_t scopeSignals = 1U << 1;
struct Ruleset {
  uint64_t files = 0;
  uint64_t network = 0;
  uint64_t scopes = 0;
};

// What each version of Landlock added can be forbidden by it and by later ones.
struct Addition {
  long version;
  uint64_t files;
  uint64_t scopes;
};
constexpr std::array<Addition, 5> additions = {{
    {1, (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1, 0},
    {2, LANDLOCK_ACCESS_FS_REFER, 0},
    {3, truncateFile, 0},
    {5, controlDevice, 0},
    {6, 0, scopeAbstractSockets | scopeSignals},
}};

bool report(const char* what) {
  logLine("Landlock: ", what, ": ", strerror(errno));
  return false;
}

bool isFolder(int descriptor) {
  struct stat info = {};
  return fstat(descriptor, &info) == 0 && S_ISDIR(info.st_mode);
}

bool allow(int ruleset, const FileAccess& file, uint64_t handled) {
  const int descriptor = open(file.path.c_str(), O_PATH | O_CLOEXEC);
  if (descriptor < 0) return true;
  const bool folder = isFolder(descriptor);
  uint64_t rights = LANDLOCK_ACCESS_FS_READ_FILE;
  if (folder) rights |= LANDLOCK_ACCESS_FS_READ_DIR;
  if (file.write) rights |= LANDLOCK_ACCESS_FS_WRITE_FILE | truncateFile;
  if (file.write && folder) rights |= LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_REMOVE_FILE;
  landlock_path_beneath_attr rule = {};
  rule.allowed_access = rights & handled;
  rule.parent_fd = descriptor;
  const bool done =
      syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0 ||
      report(file.path.c_str());
  close(descriptor);
  return done;
}

bool restrict(int ruleset, std::span<const FileAccess> files, uint64_t handled) {
  for (const FileAccess& file : files) {
    if (!allow(ruleset, file, handled)) return false;
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return report("no_new_privs");
  return syscall(SYS_landlock_restrict_self, ruleset, 0) == 0 || report("the kernel");
}

}  // namespace

void allowOnlyFiles(std::span<const FileAccess> files) {
  if (!confined) return;
  const long version =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 0) {
    logLine("owners and modes alone protect files, Landlock is missing: ", strerror(errno));
    return;
  }
  Ruleset handled;
  for (const Addition& addition : additions) {
    if (addition.version > version) break;
    handled.files |= addition.files;
    handled.scopes |= addition.scopes;
  }
  const auto ruleset =
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0));
  if (ruleset < 0) {
    report("the kernel");
    return;
  }
  restrict(ruleset, files, handled.files);
  close(ruleset);
}
