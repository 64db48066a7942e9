#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The names whose lookup has failed lately, each with the reason.
class FailureMemory {
 public:
  /// How long a failure is remembered.
  static constexpr std::chrono::minutes life{1};
  /// Beyond it the oldest are forgotten: names come from strangers.
  static constexpr size_t capacity = 1024;

  /// `clock` must outlive this.
  explicit FailureMemory(const lm::Clock& clock) : clock_(clock) {}

  /// From now on for `life`. What was remembered of the name is replaced.
  void remember(const std::string& name, Failure failure);
  /// Why the lookup of the name failed; none when that is not remembered.
  [[nodiscard]] std::optional<Failure> find(const std::string& name) const;
  [[nodiscard]] size_t size() const { return failures_.size(); }

 private:
  struct Entry {
    std::string name;
    Failure failure;
    lm::Clock::Time end;
  };

  const lm::Clock& clock_;
  std::deque<Entry> failures_;  // the oldest first
};

}  // namespace lumen
