#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "lumen/runtime/Transport.h"
#include "platform/Fd.h"

namespace lm {

/// Where the platform listens.
inline constexpr const char* socketPath = "/lumen/run/lumen.sock";

/// A connected Unix SOCK_SEQPACKET socket.
class SocketTransport : public Transport {
 public:
  /// `socket` is connected and does not block.
  explicit SocketTransport(Fd socket);

  /// Connects to the socket at `path`, of any length. Null, with errno set, when that fails.
  [[nodiscard]] static std::unique_ptr<SocketTransport> connect(const std::string& path);

  [[nodiscard]] Status send(std::string_view datagram) override;
  [[nodiscard]] Status receive(std::string& datagram) override;
  void wait(std::chrono::milliseconds limit, bool toSend) override;
  [[nodiscard]] int fd() const override { return socket_.get(); }

 private:
  Fd socket_;
};

}  // namespace lm
