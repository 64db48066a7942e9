#include "pcp/server/Service.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Time.h"
#include "pcp/server/Sides.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/Reget.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"

namespace pcp {

namespace {

constexpr uint32_t leaveDelay = 1000;  // milliseconds
constexpr uint32_t settingsRecord = 0;
constexpr uint32_t answerLimit = 2000;  // milliseconds; lumend answers at once
// Several notifications often come together.
constexpr std::chrono::milliseconds settling(30);
// After the platform did not answer.
constexpr std::chrono::seconds retryPeriod(3);
constexpr size_t mostAgents = 16;

struct Topic {
  uint32_t command;
  std::vector<uint32_t> path;
};

std::vector<Topic> topics() {
  return {{lm::cmd::changed, lm::interfaces::path()},
          {lm::cmd::interfaceChanged, lm::interfaces::path()},
          {lm::interfaces::roleChanged, lm::interfaces::path()},
          {lm::cmd::changed, lm::addresses::path()},
          {lm::cmd::changed, lm::nat::path()},
          {lm::cmd::changed, lm::pinholes::path()}};
}

/// Takes the settings that `from` has. Returns what is wrong with them.
std::string take(const lm::message& from, Service::Settings& settings) {
  settings.enabled = from.get_bool(lm::pcp::key::enabled, settings.enabled);
  if (from.fields().find(lm::pcp::key::agents) == nullptr) return {};
  settings.agents.clear();
  std::string_view rest;
  const std::string text = from.get_string(lm::pcp::key::agents);
  for (rest = text; !rest.empty();) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    if (word.empty()) continue;
    const auto agent = IpAddress::parse(word);
    if (!agent) return "a host is no IP address";
    if (settings.agents.size() == mostAgents) return "more than 16 hosts";
    settings.agents.insert(*agent);
  }
  return {};
}

lm::message written(const Service::Settings& settings) {
  std::string agents;
  for (const IpAddress& one : settings.agents) agents += (agents.empty() ? "" : " ") + one.text();
  lm::message m;
  m.insert_bool(lm::pcp::key::enabled, settings.enabled);
  m.insert_string(lm::pcp::key::agents, agents);
  return m;
}

/// The records of a table; none when the platform did not answer.
template <typename Record>
std::optional<std::vector<Record>> tableOf(lm::Handler& handler, const std::vector<uint32_t>& path,
                                           Record (*read)(const lm::message&)) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, path);
  std::vector<Record> records;
  lm::FullReget reading(handler, std::move(request), answerLimit);
  while (const std::optional<lm::message> record = reading.pop()) records.push_back(read(*record));
  if (!reading.error()) return records;
  lm::logLine("pcp: reading the router: ", lm::getError(*reading.error()));
  return std::nullopt;
}

}  // namespace

Service::Service(std::string store, const lm::Clock& clock)
    : store_(std::move(store), settingsRecord + 1),
      ports_(*this),
      pinholes_(*this),
      ipv4_(LanSocket::Family::ipv4, ports_, settings_.agents, clock),
      ipv6_(LanSocket::Family::ipv6, pinholes_, settings_.agents, clock) {
  if (const auto saved = store_.get(settingsRecord)) (void)take(*saved, settings_);
}

// The rules end with the connection.
Service::~Service() = default;

void Service::init() {
  if (settings_.enabled) {
    start();
  } else {
    lm::getLooper().setupLeave(leaveDelay);
  }
}

void Service::start() {
  if (std::exchange(started_, true)) return;
  ipv4_.start();
  ipv6_.start();
  for (const Topic& topic : topics()) subscribe(topic.command, topic.path);
  readSides();
}

void Service::stop() {
  if (!std::exchange(started_, false)) return;
  for (const Topic& topic : topics()) unsubscribe(topic.command, topic.path);
  change_.stop();
  ipv4_.stop();
  ipv6_.stop();
}

lm::message Service::cmdGet(const lm::message& /*request*/) {
  lm::message reply = written(settings_);
  std::set<std::string> names = ipv4_.listeners().served();
  names.merge(ipv6_.listeners().served());
  std::string served;
  for (const std::string& name : names) served += (served.empty() ? "" : " ") + name;
  reply.insert_string(lm::pcp::key::served, served);
  const std::string& problem = ipv4_.listeners().problem();
  reply.insert_string(lm::pcp::key::problem,
                      problem.empty() ? ipv6_.listeners().problem() : problem);
  reply.insert_u32(lm::pcp::key::mappings, static_cast<uint32_t>(ipv4_.table().size()));
  reply.insert_u32(lm::pcp::key::pinholes, static_cast<uint32_t>(ipv6_.table().size()));
  return reply;
}

lm::message Service::cmdSet(const lm::message& request) {
  Settings changed = settings_;
  if (const std::string wrong = take(request, changed); !wrong.empty()) return lm::refusal(wrong);
  if (!store_.set(settingsRecord, written(changed))) {
    return lm::refusal("the settings could not be stored");
  }
  settings_ = changed;
  lm::getLooper().setupLeave(settings_.enabled ? 0 : leaveDelay);
  if (settings_.enabled) {
    start();
  } else {
    stop();
  }
  return {};
}

lm::message Service::cmdUnknown(const lm::message& request, uint32_t command) {
  if (request.has_array(lm::key::destination)) return Handler::cmdUnknown(request, command);
  if (!started_) return {};
  if (request.get_u32_array_ref(lm::key::source) == lm::pinholes::path()) {
    for (const lm::message& news : request.get_message_array_ref(lm::key::records)) {
      if (news.get_u32(lm::key::removed) == 0) continue;
      ipv6_.table().ended(lm::pinholes::readRecord(news).id);
    }
    return {};
  }
  if (request.get_u32_array_ref(lm::key::source) != lm::nat::path()) {
    if (!change_.pending()) {
      change_.start<&Service::readSides>(*this, lumen::timerDelay(settling));
    }
    return {};
  }
  for (const lm::message& news : request.get_message_array_ref(lm::key::records)) {
    const lm::nat::Record record = lm::nat::readRecord(news);
    if (news.get_u32(lm::key::removed) != 0) {
      ipv4_.table().ended(record.id);
    } else {
      ipv4_.table().setClosed(record.id, record.closed);
    }
  }
  return {};
}

void Service::readSides() {
  const auto interfaces = tableOf(*this, lm::interfaces::path(), &lm::interfaces::readRecord);
  const auto addresses = tableOf(*this, lm::addresses::path(), &lm::addresses::readRecord);
  if (!interfaces || !addresses) {
    change_.start<&Service::readSides>(*this, lumen::timerDelay(retryPeriod));
    return;
  }
  Sides sides = sidesOf(*interfaces, *addresses, ipv4_.table().external());
  ipv4_.serveAt(std::move(sides.ipv4), sides.external);
  ipv6_.serveAt(std::move(sides.ipv6));
}

}  // namespace pcp
