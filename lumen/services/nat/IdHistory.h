#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace lumen {

/// A set of ids, stored as runs of consecutive ones: it stays small while ids are added in order.
class IdHistory {
 public:
  void add(uint32_t id) {
    if (!runs_.empty() && runs_.back().last + 1 == id) {
      runs_.back().last = id;
    } else {
      runs_.push_back({.first = id, .last = id});
    }
  }

  [[nodiscard]] bool contains(uint32_t id) const {
    return std::ranges::any_of(runs_,
                               [id](const Run& run) { return run.first <= id && id <= run.last; });
  }

 private:
  struct Run {
    uint32_t first = 0;
    uint32_t last = 0;
  };
  std::vector<Run> runs_;
};

}  // namespace lumen
