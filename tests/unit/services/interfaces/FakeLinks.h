#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/system/netlink/Links.h"

namespace lumen {

/// "192.168.1.1/24", "10.0.0.1 peer 10.0.0.2/32": with the broadcast address of its network, unless
/// that has less than four addresses.
[[nodiscard]] LinkAddress linkAddress(const std::string& words);

/// A kernel in memory, which records its calls. It reports changes at once; while `silent` they are
/// lost.
class FakeLinks : public Links {
 public:
  // What happens to links. Each gets the next index when it appears.
  void appears(const std::string& name, bool up = true, bool running = true,
               uint32_t hardwareType = 1);
  void becomes(const std::string& name, bool up, bool running);
  void becomesOfType(const std::string& name, uint32_t hardwareType);
  void isRenamed(const std::string& name, const std::string& newName);
  void leaves(const std::string& name);
  void getsAddress(const std::string& name, const std::string& words);
  void losesAddress(const std::string& name, const std::string& words);
  /// `name` is the link's, `content` the test's name for the route.
  void getsRoute(const std::string& name, const std::string& content, bool gateway = false);
  /// Changes were lost: everything is read again.
  void readsEverything() { listener_->tablesRead(all); }
  /// Delivers a notification that was delayed.
  void deliversLate(const Link& link) { listener_->linkChanged(link); }

  [[nodiscard]] uint32_t indexOf(const std::string& name) const;

  void start(Listener& listener) override;
  [[nodiscard]] std::optional<LinkStatus> read(uint32_t index) override;
  [[nodiscard]] Result<void> setUp(uint32_t index, bool up) override;
  [[nodiscard]] Result<std::vector<Route>> routes(uint32_t index) override;
  [[nodiscard]] int addRoute(const Route& route, uint32_t index) override;

  [[nodiscard]] std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

  LinkSnapshot all;
  std::map<uint32_t, std::vector<Route>> routeTable;  ///< by kernel index
  LinkCounters counters;                              ///< of every link
  std::vector<std::string> calls;                     ///< of setUp and addRoute
  bool silent = false;
  bool routesAreReadable = true;
  int setUpError = 0;
  /// The errno for a route that is restored.
  std::function<int(const std::string& content)> refusesRoute = [](const std::string&) {
    return 0;
  };

 private:
  void tell(const Link& link);

  Listener* listener_ = nullptr;
  uint32_t lastIndex_ = 1;
};

}  // namespace lumen
