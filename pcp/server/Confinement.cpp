#include "pcp/server/Confinement.h"

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"

namespace pcp {

namespace {

// What it makes beside commonCalls: the store is written, and its folder listed.
constexpr SystemCall own[] = {
    {"lstat"},
    {"lstat64"},
    {"getdents"},
    {"getdents64"},
    {"fsync"},
    {"rename"},
    {"renameat"},
    {"renameat2"},
    {"unlink"},
    {"unlinkat"},
    {"ioctl", {1, SystemCall::number, FIONREAD}},
};

}  // namespace

void confine(const std::string& store) {
  const FileAccess files[] = {{store, true}};
  allowOnlyFiles(files);
  allowOnly({commonCalls, own}, {});
}

}  // namespace pcp
