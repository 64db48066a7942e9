#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Result.h"
#include "platform/Store.h"

namespace lumen {

/// Takes links down without losing their routes, which the kernel drops without a message: they are
/// saved first, survive a restart, and are put back when the link runs again. A record of the store
/// for each link, from 1.
class RouteKeeper {
 public:
  /// How many links can have saved routes at a time. Record 0 belongs to the kept names.
  static constexpr uint32_t records = 256;
  /// Of one link, more are not saved and said so in the log: they would not fit into a record.
  static constexpr size_t maxBytes = 96UL * 1024;

  /// Loads what is stored. Both must outlive this.
  RouteKeeper(Links& links, lm::Store& store);
  RouteKeeper(const RouteKeeper&) = delete;
  RouteKeeper& operator=(const RouteKeeper&) = delete;

  /// Saves the routes of the link and takes it down, both or nothing.
  [[nodiscard]] Result<void> takeDown(const std::string& name, uint32_t index);

  /// Puts the saved routes back if the link really runs now; they are then saved no more, unless
  /// the link stopped meanwhile or the kernel could not be asked. One that the kernel refuses is
  /// logged.
  void putBack(const std::string& name, uint32_t index);

  /// Drops the saved routes of a link that has left for good.
  void forget(const std::string& name);
  void forgetAllBut(const std::function<bool(const std::string& name)>& remains);

 private:
  struct Saved {
    uint32_t record = 0;
    std::vector<Route> routes;
  };

  /// False when it could not be stored; then nothing has changed, but that an empty list always
  /// ends the link's record in memory.
  [[nodiscard]] bool save(const std::string& name, std::vector<Route> routes);
  /// 0: none.
  [[nodiscard]] uint32_t freeRecord() const;
  void load(uint32_t record);

  Links& links_;
  lm::Store& store_;
  std::map<std::string, Saved> saved_;  // by name of the link; none is empty
};

}  // namespace lumen
