#include "lumen/services/resolver/NegativeCache.h"

#include <algorithm>
#include <utility>

namespace lumen {

void NegativeCache::add(const std::string& name, Failure failure) {
  const lm::Clock::Time now = clock_.now();
  std::erase_if(failures_, [&](const Entry& f) { return f.end <= now || f.name == name; });
  if (failures_.size() >= capacity) failures_.pop_front();
  failures_.push_back({name, std::move(failure), now + lifetime});
}

std::optional<Failure> NegativeCache::find(const std::string& name) const {
  const lm::Clock::Time now = clock_.now();
  const auto found = std::ranges::find_if(
      failures_, [&](const Entry& f) { return f.end > now && f.name == name; });
  if (found == failures_.end()) return std::nullopt;
  return found->failure;
}

}  // namespace lumen
