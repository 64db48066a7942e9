#include "lumen/services/history/History.h"

#include <optional>
#include <utility>
#include <vector>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/wire/History.h"

namespace lumen {

namespace key = lm::history::key;

History::History(std::string storePath, Notifier& notifier, WallClock clock)
    : store_(std::move(storePath)), notifier_(notifier), clock_(clock) {
  for (const uint32_t id : store_.numbers()) {
    std::optional<lm::message> entry = store_.read(id);
    if (!entry) continue;
    entries_.emplace(id, std::move(*entry));
    lastId_ = id;
  }
}

std::chrono::sys_seconds History::systemTime() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

lm::message History::handle(const Caller& caller, uint32_t command, const lm::message& request) {
  if (command == lm::cmd::addObject) return add(caller, request);
  if (!(command == lm::cmd::removeObject ? caller.administrator : caller.mayRead())) {
    return lm::refusal("not permitted");
  }
  switch (command) {
    case lm::cmd::list:
    case lm::cmd::readAll:
      return lm::pagedAnswer(request, entries_,
                             [](uint32_t, const lm::message& entry) { return entry; });
    case lm::cmd::readObject:
      return read(request);
    case lm::cmd::removeObject:
      return remove(request);
    default:
      return lm::refusal("unknown command");
  }
}

lm::message History::add(const Caller& caller, const lm::message& request) {
  const std::string text = request.get_string(key::text);
  const lm::message undo = request.get_message(key::undo);
  if (caller.service == 0) return lm::refusal("only a service can take its changes back");
  if (text.empty() || text.size() > longestText) return lm::refusal("no text, or too long a one");
  if (undo.fields().find(lm::key::command) == nullptr) {
    return lm::refusal("an undo message without a command");
  }
  if (lm::encode(undo).size() > longestUndo) return lm::refusal("the undo message is too long");

  const std::vector<uint32_t>& source = request.get_u32_array_ref(lm::key::source);
  const uint32_t id = lastId_ + 1;
  lm::message entry;
  entry.insert_u32(lm::key::objectId, id);
  entry.insert_string(key::text, text);
  entry.insert_u32_array(key::path, {caller.service, source.size() < 2 ? 0 : source[1]});
  entry.insert_u64(key::time, static_cast<uint64_t>(clock_().time_since_epoch().count()));
  entry.insert_message(key::undo, undo);
  const auto pending = store_.prepare(id, entry);
  if (!pending || !pending->commit()) return lm::refusal("the change could not be stored");
  lm::message news;
  news.insert_message_array(lm::key::records, {entry});
  entries_.emplace(id, std::move(entry));
  lastId_ = id;
  notifier_.notify(lm::cmd::changed, {lm::service::history, 0}, news);
  while (entries_.size() > capacity) {
    store_.remove(entries_.begin()->first);
    entries_.erase(entries_.begin());
  }
  lm::message reply;
  reply.insert_u32(lm::key::objectId, id);
  return reply;
}

lm::message History::read(const lm::message& request) const {
  const auto found = entries_.find(request.get_u32(lm::key::objectId));
  return found == entries_.end() ? lm::refusal("no such object") : found->second;
}

lm::message History::remove(const lm::message& request) {
  const uint32_t id = request.get_u32(lm::key::objectId);
  if (!entries_.contains(id)) return lm::refusal("no such object");
  if (!store_.remove(id)) return lm::refusal("the entry could not be removed");
  undoWith([this, id, entry = std::move(entries_.extract(id).mapped())] {
    const auto pending = store_.prepare(id, entry);
    if (pending && pending->commit()) entries_.emplace(id, entry);
  });
  return {};
}

}  // namespace lumen
