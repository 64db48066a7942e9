#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// The programs of this router that wait for packets.
class Listeners {
 public:
  virtual ~Listeners() = default;

  /// Who gets what a remote host sends to `endpoint`, in TCP or UDP, by the interface with this
  /// kernel index, in words: "ssh.service", "a program of user 0". None when no program listens
  /// there, or, which is logged, the kernel cannot tell.
  [[nodiscard]] virtual std::optional<std::string> find(uint8_t protocol, const Endpoint& endpoint,
                                                        uint32_t interface) = 0;
};

}  // namespace lumen
