#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"

namespace lumen {

/// The addresses that were found after their requesters had been refused, for when they ask again.
class LateAddresses {
 public:
  /// How long an address is remembered.
  static constexpr std::chrono::minutes life{1};
  /// Beyond it the oldest are forgotten: names come from untrusted hosts.
  static constexpr size_t capacity = 128;

  /// `clock` must outlive this.
  explicit LateAddresses(const lm::Clock& clock) : clock_(clock) {}

  /// From now on for `life`. What was remembered of the name is replaced.
  void remember(const std::string& name, Ipv4Address address);
  /// The address of the name; none when that is not remembered.
  [[nodiscard]] std::optional<Ipv4Address> find(const std::string& name) const;
  [[nodiscard]] size_t size() const { return addresses_.size(); }

 private:
  struct Entry {
    std::string name;
    Ipv4Address address;
    lm::Clock::Time end;
  };

  const lm::Clock& clock_;
  std::deque<Entry> addresses_;  // the oldest first
};

}  // namespace lumen
