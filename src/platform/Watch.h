#pragma once

#include "platform/ThinRunner.h"

namespace lm {

/// A watch of a descriptor that ends on destruction. Declare it after the descriptor, so that the
/// watch is destroyed first.
class Watch {
 public:
  Watch() = default;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { stop(); }

  /// Calls the member function of `owner` with the descriptor whenever it is ready, until stopped,
  /// replacing a running watch. `owner` and `fd` must outlive the watch.
  template <auto Method, typename Owner>
  void start(int fd, Owner& owner, unsigned flags) {
    stop();
    fd_ = fd;
    addSocket<Method>(fd, owner, flags);
  }

  void stop() {
    if (fd_ < 0) return;
    removeSocket(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace lm
