#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Result.h"
#include "platform/Store.h"
#include "platform/Timer.h"

namespace lumen {

/// Takes links down without losing their routes, which the kernel drops silently: they are saved
/// first, survive a restart, and are restored when the link runs again. Each link has a record of
/// the store, from 1.
///
/// Restored routes stay in the store for a minute: a link that goes down and up repeatedly with the
/// same routes costs no further write. They are not restored again, unless lumend is killed within
/// that minute.
class RouteKeeper {
 public:
  /// How many links can have saved routes at a time. Record 0 belongs to the kept names.
  static constexpr uint32_t records = 256;
  /// Of one link. More would not fit into a record: the rest are not saved, which is logged.
  static constexpr size_t maxBytes = 96UL * 1024;
  /// How long routes that are back stay in the store.
  static constexpr std::chrono::minutes afterlife{1};

  /// Loads what is stored. All must outlive this.
  RouteKeeper(Links& links, lm::Store& store, const lm::Clock& clock);
  RouteKeeper(const RouteKeeper&) = delete;
  RouteKeeper& operator=(const RouteKeeper&) = delete;
  ~RouteKeeper();

  /// Saves the routes of the link and takes it down, both or nothing.
  [[nodiscard]] Result<void> takeDown(const std::string& name, uint32_t index);

  /// Restores the saved routes if the link really runs now. They are then no longer saved, unless
  /// the link stopped meanwhile or the kernel could not be asked. Routes that the kernel refuses
  /// are logged.
  void restore(const std::string& name, uint32_t index);

  /// Drops the saved routes of a link that has left permanently.
  void forget(const std::string& name);
  void forgetAllBut(const std::function<bool(const std::string& name)>& remains);

 private:
  /// What a record of the store holds.
  struct Saved {
    uint32_t record = 0;
    std::vector<Route> routes;
    std::optional<lm::Clock::Time> backSince;  // none: they are still to be put back
  };
  using SavedByName = std::map<std::string, Saved>;

  /// From now on these are to be restored. After a failure nothing has changed, except that an
  /// empty list always ends the link's record in memory.
  [[nodiscard]] Result<void> save(const std::string& name, std::vector<Route> routes);
  /// The routes of the link are back, or have never left.
  void settle(const std::string& name);
  /// Those that are still to be restored.
  [[nodiscard]] std::vector<Route> missing(const std::string& name) const;
  /// Takes the record of routes that are back if there is no other. 0: none.
  [[nodiscard]] uint32_t freeRecord();
  void load(uint32_t record);
  /// Clears the records of routes that were back by `time`.
  void clearSettled(lm::Clock::Time time);
  void clearOld();
  void scheduleClearing();

  Links& links_;
  lm::Store& store_;
  const lm::Clock& clock_;
  SavedByName saved_;  // by name of the link; none is empty
  lm::Timer clearing_;
};

}  // namespace lumen
