#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"

namespace lumen::web {

/// Which hosts have which connections, and for how long: decides who may have one more. It closes
/// nothing itself.
class ConnectionBook {
 public:
  static constexpr size_t most = 256;
  static constexpr size_t mostPerHost = 16;
  /// A request and its answer take no longer.
  static constexpr std::chrono::seconds requestLimit{30};

  /// Whether `host` may have one more.
  [[nodiscard]] bool admits(Ipv4Address host) const;
  /// The connection that must be closed for another one, and none while there is room: the one
  /// that waits longest, of the host that has the most.
  [[nodiscard]] std::optional<int> toClose() const;
  /// Those whose request or answer takes too long.
  [[nodiscard]] std::vector<int> overdue(lm::Clock::Time now) const;

  void opened(int fd, Ipv4Address host, lm::Clock::Time now);
  /// The next request begins.
  void answered(int fd, lm::Clock::Time now);
  /// It has become a stream of events, which has no time limit.
  void streams(int fd);
  void closed(int fd);

  [[nodiscard]] size_t size() const { return connections_.size(); }

 private:
  struct Entry {
    Ipv4Address host;
    lm::Clock::Time since;
    bool streams = false;
  };

  std::map<int, Entry> connections_;     // by descriptor
  std::map<Ipv4Address, size_t> hosts_;  // how many each has; none is 0
};

}  // namespace lumen::web
