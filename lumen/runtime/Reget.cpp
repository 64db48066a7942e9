#include "platform/Reget.h"

#include <utility>
#include <vector>

#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"

namespace lm {
namespace {

message readingAll(message request) {
  request.insert_u32(key::command, cmd::readAll);
  return request;
}

}  // namespace

class Reget::State {
 public:
  State(Handler& requester, message question, uint32_t milliseconds)
      : handler(requester), request(std::move(question)), limit(milliseconds) {}

  /// Asks for the next page. Sets `ended` when there is none.
  void readPage();

  Handler& handler;
  message request;
  const uint32_t limit;
  std::vector<message> page;
  size_t next = 0;         // record of the page
  uint32_t cursor = none;  // none: before the first page, or after the last
  bool ended = false;
  std::optional<message> error;
};

void Reget::State::readPage() {
  if (cursor != none) request.insert_u32(key::cursor, cursor);
  message reply = handler.exchangeCmd(request, request.get_u32(key::command), limit);
  const uint32_t following = reply.get_u32(key::cursor, none);
  if (isError(reply)) {
    error = std::move(reply);
  } else if (following != none && cursor != none && following <= cursor) {
    error = refusal("cursor does not rise");
  } else {
    page = reply.get_message_array_ref(key::records);
  }
  next = 0;
  cursor = following;
  ended = error || cursor == none;
}

Reget::Reget(Handler& handler, message request, uint32_t limit)
    : state_(std::make_unique<State>(handler, std::move(request), limit)) {}

Reget::~Reget() = default;

std::optional<message> Reget::pop() {
  while (state_->next == state_->page.size()) {
    if (state_->ended) return std::nullopt;
    state_->page.clear();
    state_->readPage();
  }
  return std::move(state_->page[state_->next++]);
}

const std::optional<message>& Reget::error() const { return state_->error; }

FullReget::FullReget(Handler& handler, message request, uint32_t limit)
    : Reget(handler, readingAll(std::move(request)), limit) {}

}  // namespace lm
