#pragma once

#include <memory>
#include <optional>
#include <string>

#include "lumen/ctl/router/Client.h"
#include "lumen/ctl/screen/Interruption.h"
#include "lumen/runtime/Clock.h"
#include "lumen/runtime/Connection.h"

namespace lumenctl {

/// The platform at the other end of its socket.
class SocketClient : public Client {
 public:
  /// Connects to the platform that lumend --root `root` runs; empty: to the machine's own.
  [[nodiscard]] static lumen::Result<std::unique_ptr<Client>> connect(const std::string& root);

  explicit SocketClient(std::unique_ptr<lm::Transport> transport);

  [[nodiscard]] lumen::Result<lm::message> exchange(const std::vector<uint32_t>& destination,
                                                    uint32_t command, lm::message request,
                                                    std::chrono::milliseconds limit) override;
  [[nodiscard]] lumen::Result<std::optional<lm::message>> notification() override;

 private:
  lm::SystemClock clock_;
  lm::Connection connection_;
  bool answered_ = false;                     // to anything yet
  std::optional<Interruption> interruption_;  // none until notifications are waited for
};

}  // namespace lumenctl
