#pragma once

#include <algorithm>
#include <chrono>

#include "lumen/runtime/Clock.h"

namespace lumen {

/// How long requesters wait for name servers. Their programs may block meanwhile, and the names
/// come from remote hosts, which can invent a new one each time. So all requesters of one minute
/// share `whole`, and later ones do not wait at all.
class WaitBudget {
 public:
  /// A little less than the second within which every requester has its answer.
  static constexpr std::chrono::milliseconds whole{950};
  static constexpr std::chrono::minutes period{1};

  /// `clock` must outlive this.
  explicit WaitBudget(const lm::Clock& clock) : clock_(clock) {}

  /// How long the next requester may wait.
  [[nodiscard]] std::chrono::milliseconds left() const {
    if (clock_.now() >= end_) return whole;
    return whole - std::min(whole, spent_);
  }

  /// A requester has waited so long.
  void spend(std::chrono::milliseconds waited) {
    if (clock_.now() >= end_) {
      end_ = clock_.now() + period;
      spent_ = {};
    }
    spent_ += waited;
  }

 private:
  const lm::Clock& clock_;
  lm::Clock::Time end_;  // of the period
  std::chrono::milliseconds spent_{};
};

}  // namespace lumen
