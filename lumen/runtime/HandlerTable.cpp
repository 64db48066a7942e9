#include "lumen/runtime/HandlerTable.h"

#include <algorithm>
#include <utility>

#include "lumen/runtime/HandlerState.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"

namespace lm {

HandlerTable::HandlerTable(Connection& connection) : connection_(connection) {}

bool HandlerTable::add(uint32_t number, Handler& handler) {
  if (!handlers_.emplace(number, &handler).second) return false;
  handler.state().number = number;
  return true;
}

void HandlerTable::remove(Handler& handler) {
  std::erase_if(handlers_, [&](const auto& entry) { return entry.second == &handler; });
  std::vector<Topic> topics;
  for (const auto& [topic, subscribers] : subscribers_) topics.push_back(topic);
  for (const auto& [command, source] : topics) unsubscribe(handler, command, source);
}

void HandlerTable::subscribe(Handler& handler, uint32_t command,
                             const std::vector<uint32_t>& source) {
  const Topic topic{command, source};
  std::vector<Handler*>& subscribers = subscribers_[topic];
  if (std::find(subscribers.begin(), subscribers.end(), &handler) != subscribers.end()) return;
  subscribers.push_back(&handler);
  if (subscribers.size() == 1) sendToBroker(broker::cmd::subscribe, topic, handler);
}

void HandlerTable::unsubscribe(Handler& handler, uint32_t command,
                               const std::vector<uint32_t>& source) {
  const Topic topic{command, source};
  auto found = subscribers_.find(topic);
  if (found == subscribers_.end() || std::erase(found->second, &handler) == 0) return;
  if (!found->second.empty()) return;
  subscribers_.erase(found);
  sendToBroker(broker::cmd::unsubscribe, topic, handler);
}

void HandlerTable::dispatch(const message& m) {
  if (m.has_array(key::destination)) {
    current_ = unanswered_ = m.get_u32(key::serial);
    message reply = answer(m);
    current_.reset();
    if (const auto serial = takeAnswer()) connection_.reply(*serial, std::move(reply));
    return;
  }
  if (broker::isCancellation(m)) return undo(m.get_u32(key::serial));
  const Topic topic{m.get_u32(key::command), m.get_u32_array_ref(key::source)};
  const auto found = subscribers_.find(topic);
  if (found == subscribers_.end()) return;
  const std::vector<Handler*> subscribers = found->second;
  for (Handler* handler : subscribers) {
    // A handler called before may have ended this one's subscription, or destroyed it.
    const auto now = subscribers_.find(topic);
    if (now == subscribers_.end()) return;
    if (std::find(now->second.begin(), now->second.end(), handler) == now->second.end()) continue;
    (void)handler->dispatch(m, topic.first);
  }
}

std::optional<uint32_t> HandlerTable::takeAnswer() {
  return std::exchange(unanswered_, std::nullopt);
}

void HandlerTable::noteUndo(uint32_t number, const message& undo) {
  // No requester waits for a change that has another reason, such as an undo.
  if (!current_) return;
  undos_.push_back({*current_, number, undo});
  if (undos_.size() > maxUndos) undos_.pop_front();
}

void HandlerTable::undo(uint32_t serial) {
  std::vector<Undo> changes;
  std::erase_if(undos_, [&](Undo& change) {
    if (change.serial != serial) return false;
    changes.push_back(std::move(change));
    return true;
  });
  // In reverse order: each change was made on top of the ones before it.
  for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
    const auto found = handlers_.find(change->number);
    if (found == handlers_.end()) continue;
    const uint32_t command = change->request.get_u32(key::command);
    const message reply = found->second->dispatch(change->request, command);
    if (isError(reply)) {
      logLine("platform: a change that its sender gave up stays: ", getError(reply));
    }
  }
}

message HandlerTable::answer(const message& request) {
  const std::vector<uint32_t>& path = request.get_u32_array_ref(key::destination);
  const auto found = handlers_.find(path.size() > 1 ? path[1] : 0);
  if (found == handlers_.end()) return refusal("no such handler");
  return found->second->dispatch(request, request.get_u32(key::command));
}

void HandlerTable::sendToBroker(uint32_t command, const Topic& topic, Handler& handler) {
  message request;
  request.insert_u32_array(key::destination, {service::broker});
  request.insert_u32(broker::key::topicCommand, topic.first);
  request.insert_u32_array(broker::key::topicSource, topic.second);
  connection_.post(request, command, handler.state().number);
}

}  // namespace lm
