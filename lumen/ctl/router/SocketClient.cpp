#include "lumen/ctl/router/SocketClient.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/SocketTransport.h"
#include "platform/Keys.h"

namespace lumenctl {

namespace {

/// A package bind-mounts the first at the second, for its services only.
constexpr std::array<const char*, 2> ownSockets = {"/run/lumen/lumen.sock", lm::socketPath};

}  // namespace

lumen::Result<std::unique_ptr<Client>> SocketClient::connect(const std::string& root) {
  std::vector<std::string> paths(ownSockets.begin(), ownSockets.end());
  if (!root.empty()) paths = {root + "/run/lumen.sock"};
  std::string why;
  for (const std::string& path : paths) {
    auto transport = lm::SocketTransport::connect(path);
    const int error = errno;
    if (transport) {
      return std::unique_ptr<Client>(std::make_unique<SocketClient>(std::move(transport)));
    }
    if (!why.empty()) why += "; ";
    why += path + ": " + std::strerror(error);
  }
  return lumen::Failure{"lumend does not answer (" + why + ")"};
}

SocketClient::SocketClient(std::unique_ptr<lm::Transport> transport)
    : connection_(clock_, std::move(transport)) {}

lumen::Result<lm::message> SocketClient::exchange(const std::vector<uint32_t>& destination,
                                                  uint32_t command, lm::message request,
                                                  std::chrono::milliseconds limit) {
  request.insert_u32_array(lm::key::destination, destination);
  lumen::Result<lm::message> reply = connection_.call(std::move(request), command, limit);
  const bool refused = connection_.ended() && (!reply || lm::isError(*reply));
  if (refused && !answered_) {
    // This is how lumend refuses a user without rights.
    return lm::refusal("connection ended: lumend answers root and the group lumen only");
  }
  answered_ = true;
  return reply;
}

lumen::Result<std::optional<lm::message>> SocketClient::notification() {
  if (!interruption_) interruption_.emplace();
  while (true) {
    connection_.progress();
    const bool ready = connection_.arrived() > 0 || connection_.ended();
    const std::optional<std::chrono::milliseconds> limit =
        ready ? std::optional(std::chrono::milliseconds(0)) : std::nullopt;
    if (interruption_->wait(connection_.fd(), limit)) {
      return std::optional<lm::message>();
    }
    if (auto arrived = connection_.take()) return arrived;
    if (connection_.ended()) return lumen::Failure{"the platform has ended the connection"};
  }
}

}  // namespace lumenctl
