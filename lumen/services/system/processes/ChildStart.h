#pragma once

#include <sys/resource.h>
#include <sys/types.h>

namespace lumen {

/// Everything that the new process needs, made before the fork.
struct ChildStart {
  // What the program may use at most, in bytes: some times what the gateway needs under attack.
  // It may start neither processes nor threads.
  static constexpr rlim_t mostDescriptors = 1024;
  static constexpr rlim_t mostAddressSpace = 256 << 20;
  static constexpr rlim_t longestFile = 128 << 10;  ///< a record has no more

  const char* path = nullptr;  ///< for its own argv[0] and the log
  int executable = -1;
  int lock = -1;
  int null = -1;
  int output = -1;              ///< its standard output and error; below 0: those of this process
  bool netBindService = false;  ///< it keeps CAP_NET_BIND_SERVICE
  uid_t user = 0;
  gid_t group = 0;
  pid_t parent = 0;
};

/// The first thing that runs after the fork: becomes the program, or writes one line that says what
/// failed and ends with status 126. Calls only what is safe there.
[[noreturn]] void becomeProgram(const ChildStart& start);

}  // namespace lumen
