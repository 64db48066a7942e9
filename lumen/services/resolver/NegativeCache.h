#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The names whose lookup has recently failed, each with the reason.
class NegativeCache {
 public:
  /// How long a failure is kept.
  static constexpr std::chrono::minutes lifetime{1};
  /// In entries. One more replaces the oldest: the names come from remote hosts.
  static constexpr size_t capacity = 1024;

  /// `clock` must outlive this.
  explicit NegativeCache(const lm::Clock& clock) : clock_(clock) {}

  /// Keeps the failure for `lifetime` from now on. Replaces an earlier one of the name.
  void add(const std::string& name, Failure failure);
  /// Why the lookup of the name failed; none when it is not in the cache.
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
