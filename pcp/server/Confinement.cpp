#include "pcp/server/Confinement.h"

#include "base/CommonCalls.h"
#include "base/FileAccess.h"
#include "base/SystemCalls.h"

namespace pcp {

namespace {

constexpr SystemCall own[] = {
    {"socket", {0, SystemCall::number, AF_INET}, {1, socketKind, SOCK_DGRAM}},
    {"socket", {0, SystemCall::number, AF_INET6}, {1, socketKind, SOCK_DGRAM}},
};

}  // namespace

void confine(const std::string& store) {
  const FileAccess files[] = {{store, true}};
  allowOnlyFiles(files);
  allowOnly({commonCalls, socketCalls, storeCalls, own}, {});
}

}  // namespace pcp
