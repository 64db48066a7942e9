#include "lumen/ctl/monitor/Monitor.h"

#include "lumen/ctl/monitor/MessageText.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/Pinholes.h"

namespace lumenctl {

namespace {

/// A bound, because requests of programs that ended before they were answered stay.
constexpr size_t maxPending = 4096;

const char* routerHandlerName(uint32_t handler) {
  switch (handler) {
    case lm::handler::interfaces:
      return "interfaces";
    case lm::handler::addresses:
      return "addresses";
    case lm::handler::natRules:
      return "nat";
    case lm::handler::portLog:
      return "port-log";
    case lm::handler::pinholes:
      return "pinholes";
    default:
      return nullptr;
  }
}

const char* nameOf(TracedMessage::Kind kind) {
  switch (kind) {
    case TracedMessage::Kind::request:
      return "request";
    case TracedMessage::Kind::reply:
      return "reply";
    case TracedMessage::Kind::error:
      return "error";
    case TracedMessage::Kind::notification:
      return "notification";
    case TracedMessage::Kind::message:
      break;
  }
  return "message";
}

}  // namespace

std::string TracedMessage::line() const {
  std::string result =
      localTimeOfDay(time) + " " + printable(from) + " -> " + printable(to) + ": " + nameOf(kind);
  if (!command.empty())
    result += (kind == Kind::reply || kind == Kind::error ? " to " : " ") + command;
  if (kind == Kind::error) result += ": " + quoted(error);
  const std::string fields = onOneLine(decoded(message, subject));
  if (!fields.empty()) result += " " + fields;
  if (cut) result += " (truncated)";
  return result;
}

Json TracedMessage::json() const {
  Json result = {{"time", std::chrono::duration<double>(time.time_since_epoch()).count()},
                 {"from", from},
                 {"to", to},
                 {"kind", nameOf(kind)}};
  if (!command.empty()) result["command"] = command;
  if (kind == Kind::error) result["error"] = error;
  result["fields"] = decoded(message, subject);
  if (cut) result["cut"] = true;
  return result;
}

Monitor::Monitor(const std::vector<Service>& services)
    : names_{{lm::service::broker, "broker"},
             {lm::service::identity, "identity"},
             {lm::service::history, "history"},
             {lm::monitor::subscribers, "all"}} {
  for (const Service& service : services) names_.emplace(service.number, service.name);
}

std::string Monitor::nameOf(uint32_t number, uint32_t handler) const {
  if (number == lm::service::interfaces && routerHandlerName(handler) != nullptr) {
    return routerHandlerName(handler);
  }
  std::string name;
  const auto known = names_.find(number);
  if (known != names_.end()) {
    name = known->second;
  } else if (number > lm::monitor::anonymous) {
    name = "connection " + std::to_string(number - lm::monitor::anonymous);
  } else {
    name = "service " + std::to_string(number);
  }
  return handler == 0 ? name : name + "/" + std::to_string(handler);
}

TracedMessage Monitor::read(const lm::message& shown, TracedMessage::Time time) {
  const uint32_t from = shown.get_u32(lm::monitor::key::from);
  const uint32_t to = shown.get_u32(lm::monitor::key::to);
  TracedMessage traced;
  traced.time = time;
  traced.message = shown.get_message(lm::monitor::key::message);
  traced.cut = shown.get_bool(lm::monitor::key::cut);
  traced.from = nameOf(from);
  traced.to = nameOf(to);
  const lm::message& m = traced.message;
  const uint32_t serial = m.get_u32(lm::key::serial);
  const uint32_t command = m.get_u32(lm::key::command);
  Subject& subject = traced.subject;
  subject.service = from;
  if (m.get_bool(lm::key::isReply)) {
    traced.kind = lm::isError(m) ? TracedMessage::Kind::error : TracedMessage::Kind::reply;
    traced.error = lm::getError(m);
    const auto request = pending_.find({to, serial});
    if (request != pending_.end()) {
      subject = request->second.subject;
      traced.command = commandName(subject, request->second.command);
      if (from == subject.service) traced.from = nameOf(from, subject.handler);
      pending_.erase(request);
    }
  } else if (to == lm::monitor::subscribers) {
    traced.kind = TracedMessage::Kind::notification;
    subject = Subject::of(m.get_u32_array_ref(lm::key::source));
    traced.from = nameOf(from, subject.handler);
    if (command != 0) traced.command = commandName(subject, command);
  } else if (m.get_u32_array_ref(lm::key::destination).empty()) {
    traced.kind = TracedMessage::Kind::message;
  } else {
    traced.kind = TracedMessage::Kind::request;
    subject = Subject::of(m.get_u32_array_ref(lm::key::destination));
    traced.to = nameOf(to, subject.handler);
    if (command != 0) traced.command = commandName(subject, command);
    if (pending_.size() >= maxPending) pending_.clear();
    pending_[{from, serial}] = {subject, command};
  }
  return traced;
}

}  // namespace lumenctl
