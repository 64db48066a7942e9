#pragma once

#include <unistd.h>

#include <cstddef>

#include "upnp/Service.h"

/// OSInfo:1: the version and the name of the router, which some control points look for. It has
/// state variables but no actions.
class OSInfo : public Service {
 public:
  /// Reads the host name, with the signature of `gethostname`.
  using HostName = int (*)(char* name, size_t length);

  /// Reads the name once. A name of more than three characters is left empty.
  explicit OSInfo(HostName hostName = gethostname);
};
