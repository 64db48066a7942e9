#include "lumen/services/broker/MonitorEvent.h"

#include <algorithm>
#include <utility>
#include <variant>
#include <vector>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Monitor.h"

namespace lumen {

namespace {

// How many levels of messages there are below this one.
int depth(const lm::message& m) {
  int deepest = 0;
  const auto look = [&](const lm::message& inner) {
    deepest = std::max(deepest, 1 + depth(inner));
  };
  for (const lm::Field& field : m.fields()) {
    if (const auto* one = std::get_if<lm::message>(&field.value)) look(*one);
    if (const auto* many = std::get_if<std::vector<lm::message>>(&field.value)) {
      std::for_each(many->begin(), many->end(), look);
    }
  }
  return deepest;
}

bool fits(const std::string& datagram, const lm::message& m) {
  return datagram.size() <= lm::maxDatagram && depth(m) <= lm::maxNesting;
}

lm::message wrapping(uint32_t from, uint32_t to, lm::message passing) {
  lm::message m;
  m.insert_u32(lm::key::command, lm::broker::cmd::monitor);
  m.insert_u32_array(lm::key::source, {lm::service::broker, 0});
  m.insert_u32(lm::monitor::key::from, from);
  m.insert_u32(lm::monitor::key::to, to);
  m.insert_message(lm::monitor::key::message, std::move(passing));
  return m;
}

lm::message transportFields(const lm::message& m) {
  lm::message result;
  for (const lm::Field& field : m.fields()) {
    if (lm::isTransportField(field.key)) result.fields().append(field.key, field.value);
  }
  return result;
}

}  // namespace

std::string encodeMonitorEvent(uint32_t from, uint32_t to, const lm::message& passing) {
  const lm::message whole = wrapping(from, to, passing);
  std::string datagram = lm::encode(whole);
  if (fits(datagram, whole)) return datagram;
  // Even a path or the text of an error may be that long.
  for (const lm::message& rest : {transportFields(passing), lm::message()}) {
    lm::message cut = wrapping(from, to, rest);
    cut.insert_bool(lm::monitor::key::cut, true);
    datagram = lm::encode(cut);
    if (fits(datagram, cut)) break;
  }
  return datagram;
}

}  // namespace lumen
