#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "base/Folder.h"
#include "lumen/values/Result.h"
#include "platform/Fd.h"
#include "platform/Watch.h"

namespace lumen {

/// Watches that the services' stores stay small. The kernel bounds the length of each file
/// (ChildStart::longestFile) but, without quotas, not how many there are.
class StoreWatch {
 public:
  /// Of one store. A service that keeps an object per network interface needs a few.
  static constexpr size_t mostFiles = 128;

  class Observer {
   public:
    virtual ~Observer() = default;
    /// Called at each file that is made in a store that holds more than it may.
    virtual void storeExceeded(uint32_t service, const std::string& why) = 0;
  };

  /// `observer` must outlive this.
  explicit StoreWatch(Observer& observer);
  StoreWatch(const StoreWatch&) = delete;
  StoreWatch& operator=(const StoreWatch&) = delete;

  /// Watches a store of a service from now on, which need not be readable to others than `user`.
  /// An error: its size stays unbounded.
  [[nodiscard]] Result<void> add(uint32_t service, const std::string& directory, uid_t user);

 private:
  struct Store {
    uint32_t service = 0;
    std::string path;
    Folder entries;  // opened once: its owner can forbid opening it later
  };

  void changed(int fd);
  void check(Store& store) const;

  Observer& observer_;
  lm::Fd notifications_;
  std::map<int, Store> stores_;  // by the number that inotify gives
  lm::Watch watch_;
};

}  // namespace lumen
