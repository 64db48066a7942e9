#pragma once

#include <cstdint>
#include <vector>

#include "platform/message.h"

namespace lumenctl {

/// The way to the platform's services.
class Client {
 public:
  virtual ~Client() = default;

  /// Sends `request` as `command` to the path `destination` (service, handler) and waits for the
  /// reply. A request that is not answered gives an error reply.
  [[nodiscard]] virtual lm::message exchange(const std::vector<uint32_t>& destination,
                                             uint32_t command, lm::message request) = 0;
};

}  // namespace lumenctl
