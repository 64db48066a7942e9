#pragma once

#include <cstdint>

/// A network interface on which requests are served. Work done for it shares ownership, so the
/// interface lives at least as long as that work.
class ServedInterface {
 public:
  virtual ~ServedInterface() = default;
  /// Its current IPv4 address in network byte order; 0 for none.
  [[nodiscard]] virtual uint32_t ipAddress() const = 0;
};
