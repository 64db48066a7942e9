#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumen {

/// The ids that a connection has added, as runs of consecutive ones. It stays small however many
/// are added: of old ids it only knows roughly which were the connection's.
class IdHistory {
 public:
  /// Where other connections add ids too, the runs are short.
  static constexpr size_t mostRuns = 256;

  /// An id that is lower than the one before begins again at 1, which forgets all others.
  void add(uint32_t id) {
    if (!runs_.empty() && id <= runs_.back().last) runs_.clear();
    if (!runs_.empty() && runs_.back().last + 1 == id) {
      runs_.back().last = id;
      return;
    }
    runs_.push_back({.first = id, .last = id});
    if (runs_.size() > mostRuns) joinOldest();
  }

  /// Whether the id was added. Also true of some ids of others between old ones.
  [[nodiscard]] bool contains(uint32_t id) const {
    return std::ranges::any_of(runs_,
                               [id](const Run& run) { return run.first <= id && id <= run.last; });
  }
  [[nodiscard]] size_t runs() const { return runs_.size(); }

 private:
  /// Makes a run of the older half, ids between them included: all are known that were added.
  void joinOldest() {
    const auto newest = runs_.begin() + mostRuns / 2;
    runs_.front().last = (newest - 1)->last;
    runs_.erase(runs_.begin() + 1, newest);
  }

  struct Run {
    uint32_t first = 0;
    uint32_t last = 0;
  };
  std::vector<Run> runs_;  // in rising order
};

}  // namespace lumen
