#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "lumen/ctl/router/Records.h"

namespace lumenctl {

/// The recent traffic of an interface, computed from readings of its counters.
class Traffic {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// In bytes per second.
  struct Rate {
    uint64_t received = 0;
    uint64_t sent = 0;
    [[nodiscard]] bool operator==(const Rate&) const = default;
  };

  /// Adds a reading of the counters at the time `now`.
  void add(const Counters& counters, Time now);

  /// The rate between each two successive readings, the newest last; with a reading a second, of a
  /// minute. A counter that has fallen belongs to another interface of the same name: no rate.
  [[nodiscard]] const std::deque<Rate>& rates() const { return rates_; }

 private:
  struct Reading {
    Counters counters;
    Time time;
  };
  std::optional<Reading> last_;
  std::deque<Rate> rates_;
};

}  // namespace lumenctl
