#pragma once

#include <cstdint>

/// An address object of the platform.
struct Addr {
  uint32_t address = 0;    ///< IPv4, network byte order
  uint32_t interface = 0;  ///< id of its interface
  bool stale = false;      ///< not yet seen in the current full read
};
