#pragma once

#include <unistd.h>

#include <cstddef>

#include "upnp/Service.h"

/// OSInfo:1: the version and the name of the router, which some control points look for. It has
/// variables only.
class OSInfo : public Service {
 public:
  /// Reads the host's name, as `gethostname` does.
  using HostName = int (*)(char* name, size_t length);

  /// The name is read here once. One of more than three characters is left out.
  explicit OSInfo(HostName hostName = gethostname);
};
