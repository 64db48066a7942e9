#include "platform/Handler.h"

#include <chrono>
#include <utility>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/HandlerState.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Runtime.h"
#include "platform/wire/History.h"

namespace lm {
namespace {

Runtime& runtime() {
  Runtime* current = currentRuntime();
  if (!current) fatal("platform: no looper");
  return *current;
}

}  // namespace

Handler::Handler() : state_(std::make_unique<State>()) {}

Handler::~Handler() {
  if (Runtime* current = currentRuntime()) current->handlers().remove(*this);
}

message Handler::dispatch(const message& request, uint32_t command) {
  switch (command) {
    case cmd::get:
      return cmdGet(request);
    case cmd::set:
      return cmdSet(request);
    default:
      return cmdUnknown(request, command);
  }
}

message Handler::cmdGet(const message&) { return refusal("unknown command"); }

message Handler::cmdSet(const message&) { return refusal("unknown command"); }

message Handler::cmdUnknown(const message&, uint32_t) { return refusal("unknown command"); }

message Handler::exchangeCmd(const message& request, uint32_t command, uint32_t limit,
                             GivenUp late) {
  return runtime().connection().exchange(request, command, std::chrono::milliseconds(limit),
                                         state_->number, late);
}

void Handler::subscribe(uint32_t command, const std::vector<uint32_t>& source) {
  runtime().handlers().subscribe(*this, command, source);
}

void Handler::unsubscribe(uint32_t command, const std::vector<uint32_t>& source) {
  runtime().handlers().unsubscribe(*this, command, source);
}

void Handler::notifyChange(uint32_t id, const message& config) {
  message notification = withoutTransportFields(config);
  if (id != none) {
    std::vector<message> records{makeRecord(id, notification)};
    notification = message();
    notification.insert_message_array(key::records, std::move(records));
  }
  runtime().connection().notify(std::move(notification), cmd::changed, state_->number);
}

// An undo is recorded like any other change: undoing it repeats the first one.
void Handler::sendUndo(const message& /*request*/, const message& undo, const std::string& text) {
  message entry;
  entry.insert_u32_array(key::destination, {service::history});
  entry.insert_string(history::key::text, text);
  entry.insert_message(history::key::undo, undo);
  runtime().connection().post(std::move(entry), cmd::addObject, state_->number);
  runtime().handlers().noteUndo(state_->number, undo);
}

}  // namespace lm
