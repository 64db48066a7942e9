#include "lumen/services/broker/Subscriptions.h"

#include <iterator>

namespace lumen {

bool Subscriptions::add(uint64_t connection, uint32_t command, Path source) {
  return topics_[topic(command, source)].insert(connection).second;
}

bool Subscriptions::remove(uint64_t connection, uint32_t command, Path source) {
  const auto found = topics_.find(topic(command, source));
  if (found == topics_.end() || found->second.erase(connection) == 0) return false;
  if (found->second.empty()) topics_.erase(found);
  return true;
}

void Subscriptions::removeAll(uint64_t connection) {
  for (auto topic = topics_.begin(); topic != topics_.end();) {
    topic->second.erase(connection);
    topic = topic->second.empty() ? topics_.erase(topic) : std::next(topic);
  }
}

const std::set<uint64_t>& Subscriptions::subscribers(uint32_t command, Path source) const {
  static const std::set<uint64_t> none;
  const auto found = topics_.find(topic(command, source));
  return found == topics_.end() ? none : found->second;
}

}  // namespace lumen
