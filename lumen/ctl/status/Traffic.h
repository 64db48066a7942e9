#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "lumen/ctl/router/Records.h"

namespace lumenctl {

/// How much an interface carried lately, out of what its counters said now and then.
class Traffic {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// In bytes per second.
  struct Rate {
    uint64_t received = 0;
    uint64_t sent = 0;
    [[nodiscard]] bool operator==(const Rate&) const = default;
  };

  /// What the counters said at the moment `now`.
  void add(const Counters& counters, Time now);

  /// Between one reading and the next, the newest last, of a minute at one reading a second. There
  /// is none between two of which the later counts less: those are of two interfaces.
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
