#include "lumen/ctl/monitor/Monitor.h"

#include "lumen/ctl/monitor/MessageText.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/wire/Monitor.h"

namespace lumenctl {

namespace {

/// Requests of programs that ended before they were answered stay; so many are kept.
constexpr size_t mostUnderWay = 4096;

const char* routerHandlerName(uint32_t handler) {
  switch (handler) {
    case lm::handler::interfaces:
      return "interfaces";
    case lm::handler::addresses:
      return "addresses";
    case lm::handler::natRules:
      return "nat";
    default:
      return nullptr;
  }
}

const char* nameOf(Passed::Kind kind) {
  switch (kind) {
    case Passed::Kind::request:
      return "request";
    case Passed::Kind::reply:
      return "reply";
    case Passed::Kind::error:
      return "error";
    case Passed::Kind::notification:
      return "notification";
    case Passed::Kind::message:
      break;
  }
  return "message";
}

}  // namespace

std::string Passed::line() const {
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

Json Passed::json() const {
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

Passed Monitor::read(const lm::message& shown, Passed::Time time) {
  const uint32_t from = shown.get_u32(lm::monitor::key::from);
  const uint32_t to = shown.get_u32(lm::monitor::key::to);
  Passed passed;
  passed.time = time;
  passed.message = shown.get_message(lm::monitor::key::message);
  passed.cut = shown.get_bool(lm::monitor::key::cut);
  passed.from = nameOf(from);
  passed.to = nameOf(to);
  const lm::message& m = passed.message;
  const uint32_t serial = m.get_u32(lm::key::serial);
  const uint32_t command = m.get_u32(lm::key::command);
  Subject& subject = passed.subject;
  subject.service = from;
  if (m.get_bool(lm::key::isReply)) {
    passed.kind = lm::isError(m) ? Passed::Kind::error : Passed::Kind::reply;
    passed.error = lm::getError(m);
    const auto request = underWay_.find({to, serial});
    if (request != underWay_.end()) {
      subject = request->second.subject;
      passed.command = commandName(subject, request->second.command);
      if (from == subject.service) passed.from = nameOf(from, subject.handler);
      underWay_.erase(request);
    }
  } else if (to == lm::monitor::subscribers) {
    passed.kind = Passed::Kind::notification;
    subject = Subject::of(m.get_u32_array_ref(lm::key::source));
    passed.from = nameOf(from, subject.handler);
    if (command != 0) passed.command = commandName(subject, command);
  } else if (m.get_u32_array_ref(lm::key::destination).empty()) {
    passed.kind = Passed::Kind::message;
  } else {
    passed.kind = Passed::Kind::request;
    subject = Subject::of(m.get_u32_array_ref(lm::key::destination));
    passed.to = nameOf(to, subject.handler);
    if (command != 0) passed.command = commandName(subject, command);
    if (underWay_.size() >= mostUnderWay) underWay_.clear();
    underWay_[{from, serial}] = {subject, command};
  }
  return passed;
}

}  // namespace lumenctl
