#pragma once

#include <chrono>
#include <cstdint>

#include "lumen/runtime/Clock.h"

namespace pcp {

/// For how long the router has kept the mappings of its clients, which see by it that they were
/// lost (RFC 6886 section 3.6, RFC 6887 section 8.5).
class Epoch {
 public:
  /// Begins. `clock` must outlive this.
  explicit Epoch(const lm::Clock& clock) : clock_(clock), begin_(clock.now()) {}

  /// All mappings are lost.
  void restart() { begin_ = clock_.now(); }

  [[nodiscard]] uint32_t seconds() const {
    return static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(clock_.now() - begin_).count());
  }

 private:
  const lm::Clock& clock_;
  lm::Clock::Time begin_;
};

}  // namespace pcp
