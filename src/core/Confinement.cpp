#include "core/Confinement.h"

#include <sys/ioctl.h>

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"
#include "core/Paths.h"

namespace {

// What it makes beside those that others make, too.
constexpr SystemCall own[] = {
    {"ioctl", {1, SystemCall::number, FIONREAD}},
};

}  // namespace

void confineGateway() {
  const FileAccess files[] = {
      {path::interfaceStore, true}, {path::settingsStore, true}, {path::servedFiles}};
  allowOnlyFiles(files);
  allowOnly({commonCalls, clientCalls, serverCalls, socketCalls, storeCalls, own}, {});
}
