#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

#include "lumen/runtime/Clock.h"

namespace lumen {

/// How often services may take one link down: any LAN host can ask the gateway for it. Taking a
/// link up is not limited: what a service took down must never have to stay down.
class SwitchBudget {
 public:
  static constexpr size_t most = 3;  ///< in one period
  static constexpr std::chrono::minutes period{1};

  /// Whether the link may be taken down now; if so it counts.
  [[nodiscard]] bool take(lm::Clock::Time now);

  /// Whether a refusal should be logged: one in each period.
  [[nodiscard]] bool takeLogLine(lm::Clock::Time now);

 private:
  std::array<std::optional<lm::Clock::Time>, most> taken_;  // a ring
  size_t oldest_ = 0;                                       // of taken_
  std::optional<lm::Clock::Time> logged_;
};

}  // namespace lumen
