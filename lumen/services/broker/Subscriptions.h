#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace lumen {

/// Where a message comes from or goes to.
struct Path {
  uint32_t service = 0;
  uint32_t handler = 0;

  /// A missing handler is number 0; elements after the second are ignored.
  static Path of(const std::vector<uint32_t>& elements) {
    return {elements.empty() ? 0 : elements[0], elements.size() < 2 ? 0 : elements[1]};
  }
};

/// Which connections get which notifications.
class Subscriptions {
 public:
  /// False when there was no change.
  bool add(uint64_t connection, uint32_t command, Path source);
  bool remove(uint64_t connection, uint32_t command, Path source);
  void removeAll(uint64_t connection);

  /// In rising order; valid until the next change.
  [[nodiscard]] const std::set<uint64_t>& subscribers(uint32_t command, Path source) const;

 private:
  using Topic = std::tuple<uint32_t, uint32_t, uint32_t>;

  static Topic topic(uint32_t command, Path source) {
    return {command, source.service, source.handler};
  }

  std::map<Topic, std::set<uint64_t>> topics_;
};

}  // namespace lumen
