#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>

/// A system call in a list, and what its arguments must be for the entry to mean it: an entry
/// without conditions means every call of that name. A name that this machine does not have is
/// skipped, so that one list serves every C library and word size.
struct SystemCall {
  /// The condition that the argument of this index is `value` in the bits of `mask`. The default
  /// holds always.
  struct Argument {
    unsigned index = 0;
    uint64_t mask = 0;
    uint64_t value = 0;
  };
  /// The mask of a number that the kernel reads as 32 bits.
  static constexpr uint64_t number = 0xFFFFFFFF;

  const char* name;
  Argument first = {};
  Argument second = {};
};

/// A call that fails with `error` (errno), since a library tries it and can do without.
struct RefusedCall {
  SystemCall call;
  int error = 0;
};

/// From here on this process, and every program that it starts, may make only the calls of the
/// lists in `allowed`. Any other ends the process by SIGSYS, after a line in its log that names the
/// call. Ends the process with exit status 1 when the kernel refuses the list; a kernel without
/// such lists is logged. Does nothing in a build without confinement. The process has one thread.
void allowOnly(std::initializer_list<std::span<const SystemCall>> allowed,
               std::span<const RefusedCall> refused);

/// From here on this process, and every program that it starts, may make every call but those of
/// `forbidden`. As allowOnly otherwise; a started program that makes one ends without the line.
void forbid(std::span<const SystemCall> forbidden, std::span<const RefusedCall> refused);
