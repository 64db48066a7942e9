#include "lumen/services/system/netfilter/LibNftables.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "lumen/runtime/Log.h"
#include "platform/Fd.h"

namespace lumen {

namespace {

constexpr const char* unusable = "libnftables cannot be used";

// A child that inherited the socket would keep the table when this process is killed. libnftables
// neither tells which descriptor it opens nor opens it close-on-exec, but the kernel gives the
// lowest free number.
int lowestFreeDescriptor() {
  lm::Fd probe(open("/", O_PATH | O_CLOEXEC));
  return probe.get();
}

bool closeOnExec(int fd) {
  int protocol = -1;
  socklen_t size = sizeof protocol;
  if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) < 0) return false;
  return protocol == NETLINK_NETFILTER && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

void LibNftables::Free::operator()(nft_ctx* context) const { nft_ctx_free(context); }

LibNftables::LibNftables() {
  socket_ = lowestFreeDescriptor();
  context_.reset(nft_ctx_new(NFT_CTX_DEFAULT));
  if (!context_) return;
  if (!closeOnExec(socket_)) {
    lm::logLine("nftables socket: not found: ", std::strerror(errno));
    context_.reset();
    return;
  }
  nft_ctx_buffer_output(context_.get());
  nft_ctx_buffer_error(context_.get());
}

LibNftables::~LibNftables() = default;

Result<std::string> LibNftables::run(const std::string& commands) {
  if (!context_) return Failure{unusable};
  return result(nft_run_cmd_from_buffer(context_.get(), commands.c_str()));
}

Result<std::string> LibNftables::runFile(const std::string& path) {
  if (!context_) return Failure{unusable};
  return result(nft_run_cmd_from_filename(context_.get(), path.c_str()));
}

Result<void> LibNftables::changeElements(std::span<const ElementChange> changes) {
  if (!context_) return Failure{unusable};
  return lumen::changeElements(socket_, changes);
}

Result<SetElement> LibNftables::readElement(const ElementSet& set, const ElementParts& key) {
  if (!context_) return Failure{unusable};
  return lumen::readElement(socket_, set, key);
}

Result<void> LibNftables::readElements(const ElementSet& set, const ElementVisitor& visit) {
  if (!context_) return Failure{unusable};
  return lumen::readElements(socket_, set, visit);
}

void LibNftables::forget() {
  // It keeps what it read of every table, half a megabyte for each, until the kernel has changed or
  // a command fails; there is no function for it.
  if (context_) static_cast<void>(run("!"));
}

Result<std::string> LibNftables::result(int status) {
  // Reading a buffer is also what empties it.
  std::string output = nft_ctx_get_output_buffer(context_.get());
  std::string error = nft_ctx_get_error_buffer(context_.get());
  if (status != 0) return Failure{std::move(error)};
  return output;
}

}  // namespace lumen
