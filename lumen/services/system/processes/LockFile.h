#pragma once

#include <sys/types.h>

#include <string>

#include "platform/Fd.h"

namespace lumen {

/// A file that names the process that does a job: a POSIX record lock, which the kernel releases
/// when that process ends, survives execve and names its holder. It is also released when the
/// process closes any descriptor of the file, so a holder opens it once.

/// Opens the lock file, made when missing and for root only. Invalid when that failed; errno says
/// why.
[[nodiscard]] lm::Fd openLockFile(const std::string& path);

/// Makes the calling process the holder. False when another process is. Safe between fork and exec.
[[nodiscard]] bool takeLock(int lockFile);

/// What holderOf returns for a process in another container, which has no number here.
inline constexpr pid_t unseenHolder = -1;

/// The process that holds the lock, other than the calling one; 0: none.
[[nodiscard]] pid_t holderOf(int lockFile);

}  // namespace lumen
