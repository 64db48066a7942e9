#include "lumen/web/ConnectionBook.h"

#include <algorithm>

namespace lumen::web {

bool ConnectionBook::admits(Ipv4Address host) const {
  const auto held = hosts_.find(host);
  return held == hosts_.end() || held->second < mostPerHost;
}

std::optional<int> ConnectionBook::toClose() const {
  if (connections_.size() < most) return std::nullopt;
  const auto largest =
      std::max_element(hosts_.begin(), hosts_.end(),
                       [](const auto& a, const auto& b) { return a.second < b.second; });
  std::optional<int> oldest;
  lm::Clock::Time since;
  for (const auto& [fd, entry] : connections_) {
    if (entry.host != largest->first || (oldest && entry.since >= since)) continue;
    oldest = fd;
    since = entry.since;
  }
  return oldest;
}

std::vector<int> ConnectionBook::overdue(lm::Clock::Time now) const {
  std::vector<int> found;
  for (const auto& [fd, entry] : connections_) {
    if (!entry.streams && now - entry.since > requestLimit) found.push_back(fd);
  }
  return found;
}

void ConnectionBook::opened(int fd, Ipv4Address host, lm::Clock::Time now) {
  closed(fd);
  connections_[fd] = {host, now, false};
  ++hosts_[host];
}

void ConnectionBook::answered(int fd, lm::Clock::Time now) {
  const auto found = connections_.find(fd);
  if (found != connections_.end()) found->second.since = now;
}

void ConnectionBook::streams(int fd) {
  const auto found = connections_.find(fd);
  if (found != connections_.end()) found->second.streams = true;
}

void ConnectionBook::closed(int fd) {
  const auto found = connections_.find(fd);
  if (found == connections_.end()) return;
  const auto host = hosts_.find(found->second.host);
  if (--host->second == 0) hosts_.erase(host);
  connections_.erase(found);
}

}  // namespace lumen::web
