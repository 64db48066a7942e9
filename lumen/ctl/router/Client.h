#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lumenctl {

/// The way to the platform's services.
class Client {
 public:
  virtual ~Client() = default;

  /// Sends `request` as `command` to the path `destination` (service, handler) and waits at
  /// most `limit` for the reply. Fails when there is none: not in time, or because the connection
  /// has ended.
  [[nodiscard]] virtual lumen::Result<lm::message> exchange(
      const std::vector<uint32_t>& destination, uint32_t command, lm::message request,
      std::chrono::milliseconds limit) = 0;

  /// Waits for the next notification. None when the program is asked to end (SIGINT, SIGTERM) or
  /// its standard output has lost its reader; a failure when the platform has ended.
  [[nodiscard]] virtual lumen::Result<std::optional<lm::message>> notification() = 0;
};

/// Connects to the platform whose root folder is `root`; empty: the machine's own.
using Connect = std::function<lumen::Result<std::unique_ptr<Client>>(const std::string& root)>;

}  // namespace lumenctl
