#pragma once

#include <algorithm>
#include <cstdint>

#include "lumen/runtime/Clock.h"

namespace lumen {

/// How long requesters wait for name servers. Their programs may stand still meanwhile, and the
/// names come from strangers, who can think of a new one each time: so all requesters of one minute
/// wait `whole` together, and who comes after that `least`, which is plenty for a name server that
/// knows the answer. All times are in milliseconds.
class Patience {
 public:
  /// A little less than the second within which every requester has its answer.
  static constexpr uint64_t whole = 950;
  static constexpr uint64_t least = 100;
  static constexpr uint64_t period = 60'000;

  /// `clock` must outlive this.
  explicit Patience(const lm::Clock& clock) : clock_(clock) {}

  /// How long the next requester may wait.
  [[nodiscard]] uint64_t left() const {
    if (clock_.now() >= end_) return whole;
    return std::max(least, whole - std::min(whole, spent_));
  }

  /// A requester has waited so long.
  void spend(uint64_t waited) {
    if (clock_.now() >= end_) {
      end_ = clock_.now() + period;
      spent_ = 0;
    }
    spent_ += waited;
  }

 private:
  const lm::Clock& clock_;
  uint64_t end_ = 0;  // of the period, on the clock
  uint64_t spent_ = 0;
};

}  // namespace lumen
