#include "lumen/services/system/processes/LockFile.h"

#include <fcntl.h>

namespace lumen {

namespace {

// The lock is shared, which needs no write access: its holder cannot fill the file. It counts only
// while no other process has one.
struct flock wholeFile(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

lm::Fd openLockFile(const std::string& path) {
  return lm::Fd(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

bool takeLock(int lockFile) {
  struct flock lock = wholeFile(F_RDLCK);
  if (fcntl(lockFile, F_SETLK, &lock) != 0) return false;
  if (holderOf(lockFile) == 0) return true;
  lock = wholeFile(F_UNLCK);
  fcntl(lockFile, F_SETLK, &lock);
  return false;
}

pid_t holderOf(int lockFile) {
  struct flock lock = wholeFile(F_WRLCK);
  if (fcntl(lockFile, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid > 0 ? lock.l_pid : unseenHolder;
}

}  // namespace lumen
