#include "core/Confinement.h"

#include <sys/ioctl.h>

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"
#include "core/Paths.h"

namespace {

// What it makes beside commonCalls.
constexpr SystemCall own[] = {
    // Sockets that listen.
    {"listen"},
    {"accept"},
    {"accept4"},
    {"shutdown"},

    // Files: the stores are written, and folders listed.
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

void confineGateway() {
  const FileAccess files[] = {
      {path::interfaceStore, true}, {path::settingsStore, true}, {path::servedFiles}};
  allowOnlyFiles(files);
  allowOnly({commonCalls, own}, {});
}
