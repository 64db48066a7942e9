#pragma once

#include <cstdint>

/// One address object of the platform.
struct Addr {
  uint32_t address = 0;    ///< IPv4, network byte order
  uint32_t interface = 0;  ///< id of its interface
  bool stale = false;      ///< not seen yet in the full read that is under way
};
