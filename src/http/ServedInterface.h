#pragma once

#include <cstdint>

/// A network interface on which requests are served. Whoever works for one shares it, so that it
/// lives at least as long as the work.
class ServedInterface {
 public:
  virtual ~ServedInterface() = default;
  /// Its IPv4 address now, in network byte order; 0 for none.
  [[nodiscard]] virtual uint32_t ipAddress() const = 0;
};
