#include "pcp/table/AnswerLimit.h"

#include <algorithm>
#include <chrono>

namespace pcp {

bool AnswerLimit::admits(const IpAddress& address) {
  const lm::Clock::Time now = clock_.now();
  if (hosts_.size() >= mostHosts && !hosts_.contains(address)) makeRoom();
  Host& host = hosts_.try_emplace(address, Host{now}).first->second;
  const std::chrono::duration<double> silence = now - host.seen;
  host.seen = now;
  host.answers = std::min<double>(burst, host.answers + silence.count() * perSecond);
  if (host.answers < 1) return false;
  host.answers -= 1;
  return true;
}

void AnswerLimit::makeRoom() {
  hosts_.erase(std::min_element(hosts_.begin(), hosts_.end(), [](const auto& a, const auto& b) {
    return a.second.seen < b.second.seen;
  }));
}

}  // namespace pcp
