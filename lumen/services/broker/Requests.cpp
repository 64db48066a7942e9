#include "lumen/services/broker/Requests.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace lumen {

uint32_t Requests::addSent(Requester from, uint64_t to) {
  do {
    ++lastSerial_;
  } while (sent_.contains(lastSerial_));
  sent_.emplace(lastSerial_, Sent{from, to});
  return lastSerial_;
}

std::optional<Requester> Requests::takeAnswered(uint32_t serial, uint64_t to) {
  const auto found = sent_.find(serial);
  if (found == sent_.end() || found->second.to != to) return std::nullopt;
  const Requester from = found->second.from;
  sent_.erase(found);
  return from;
}

std::vector<Requester> Requests::takeSentTo(uint64_t to) {
  std::vector<Requester> taken;
  std::erase_if(sent_, [&](const auto& entry) {
    if (entry.second.to != to) return false;
    taken.push_back(entry.second.from);
    return true;
  });
  return taken;
}

std::optional<SentRequest> Requests::takeSent(Requester from) {
  const auto found = std::find_if(sent_.begin(), sent_.end(),
                                  [&](const auto& entry) { return entry.second.from == from; });
  if (found == sent_.end()) return std::nullopt;
  const SentRequest request{found->second.to, found->first};
  sent_.erase(found);
  return request;
}

void Requests::addWaiting(WaitingRequest request) {
  waitingBytes_ += request.datagram.size();
  waiting_.push_back(std::move(request));
}

bool Requests::dropWaiting(Requester from) {
  const auto found = std::find_if(waiting_.begin(), waiting_.end(),
                                  [&](const WaitingRequest& one) { return one.from == from; });
  if (found == waiting_.end()) return false;
  waitingBytes_ -= found->datagram.size();
  waiting_.erase(found);
  return true;
}

std::vector<WaitingRequest> Requests::takeWaitingFor(uint32_t service) {
  const auto others = [&](const WaitingRequest& waiting) { return waiting.service != service; };
  const auto first = std::stable_partition(waiting_.begin(), waiting_.end(), others);
  std::vector<WaitingRequest> taken(std::make_move_iterator(first),
                                    std::make_move_iterator(waiting_.end()));
  waiting_.erase(first, waiting_.end());
  for (const WaitingRequest& waiting : taken) waitingBytes_ -= waiting.datagram.size();
  return taken;
}

std::vector<WaitingRequest> Requests::takeLate(lm::Clock::Time now) {
  std::vector<WaitingRequest> taken;
  while (!waiting_.empty() && waiting_.front().deadline <= now) {
    waitingBytes_ -= waiting_.front().datagram.size();
    taken.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
  }
  return taken;
}

std::optional<lm::Clock::Time> Requests::nextDeadline() const {
  if (waiting_.empty()) return std::nullopt;
  return waiting_.front().deadline;
}

}  // namespace lumen
