#include "lumen/web/RouterView.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "lumen/ctl/check/Checks.h"
#include "lumen/ctl/router/InterfaceUse.h"
#include "lumen/ctl/router/PortEvent.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "lumen/web/Refusals.h"
#include "platform/Keys.h"
#include "platform/Reget.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pinholes.h"

namespace lumen::web {

namespace {

using lumenctl::GatewayState;
using lumenctl::Role;
using lumenctl::ServiceState;

// Milliseconds. lumend answers at once, the gateway may be busy.
constexpr uint32_t answerLimit = 2000;
// Several notifications often come together.
constexpr std::chrono::milliseconds settling(30);
constexpr std::chrono::seconds freshness(1);
constexpr std::chrono::seconds longestGap(10);
constexpr std::chrono::minutes keptTraffic(10);

const std::vector<uint32_t> brokerPath = {lm::service::broker, 0};
const std::vector<uint32_t> gatewayPath = {lm::service::gateway, 0};
const std::vector<uint32_t> historyPath = {lm::service::history, 0};

Milliseconds wallClock() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

lm::message requestTo(const std::vector<uint32_t>& path) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, path);
  return request;
}

std::string nameOf(const lumenctl::PortEvent& event) {
  return event.protocolName() + " port " + std::to_string(event.external.port);
}

bool uses(const lumenctl::UsedInterface& used, Role role) { return used.use.role == role; }

}  // namespace

RouterView::RouterView(lm::Handler& handler, Listener& listener, const lm::Clock& clock)
    : handler_(handler), listener_(listener), clock_(clock) {}

std::vector<RouterView::Topic> RouterView::topics() {
  return {{lm::cmd::changed, brokerPath},
          {lm::cmd::changed, gatewayPath},
          {lm::cmd::changed, historyPath},
          {lm::cmd::changed, lm::interfaces::path()},
          {lm::cmd::interfaceChanged, lm::interfaces::path()},
          {lm::interfaces::roleChanged, lm::interfaces::path()},
          {lm::cmd::changed, lm::addresses::path()},
          {lm::cmd::changed, lm::nat::path()},
          {lm::cmd::changed, lm::pinholes::path()},
          {lm::cmd::changed, lm::nat::logPath()}};
}

void RouterView::open() {
  if (std::exchange(open_, true)) return;
  for (const Topic& topic : topics()) handler_.subscribe(topic.command, topic.path);
  picture_ = {};
  newestPortEvent_ = newestChange_ = 0;
  picture_.since = wallClock();
  reading_ = true;
  readPast();
  readPorts();
  readState();
  reading_ = false;
}

void RouterView::close() {
  if (!std::exchange(open_, false)) return;
  change_.stop();
  for (const Topic& topic : topics()) handler_.unsubscribe(topic.command, topic.path);
}

void RouterView::notified(const lm::message& news) {
  if (!open_) return;
  const std::vector<uint32_t>& source = news.get_u32_array_ref(lm::key::source);
  const auto each = [&](void (RouterView::*take)(const lm::message&)) {
    for (const lm::message& record : news.get_message_array_ref(lm::key::records)) {
      (this->*take)(record);
    }
  };
  if (source == lm::nat::path()) {
    each(&RouterView::takeRule);
  } else if (source == lm::pinholes::path()) {
    each(&RouterView::takePinhole);
  } else if (source == lm::nat::logPath()) {
    each(&RouterView::takePortEvent);
  } else if (source == historyPath) {
    each(&RouterView::takeChange);
  } else if (!change_.pending()) {
    change_.start<&RouterView::readState>(*this, timerDelay(settling));
  }
}

std::vector<lm::message> RouterView::table(const std::vector<uint32_t>& path) {
  std::vector<lm::message> records;
  lm::FullReget reading(handler_, requestTo(path), answerLimit);
  while (std::optional<lm::message> record = reading.pop()) records.push_back(std::move(*record));
  if (reading.error()) logLine("reading the router: ", lm::getError(*reading.error()));
  return records;
}

void RouterView::readState() {
  readServices();
  readGateway();
  readInterfaces();
  judge();
  if (!reading_) listener_.stateChanged();
}

void RouterView::readServices() {
  const lm::message reply = handler_.exchangeCmd(requestTo({lm::service::broker}),
                                                 lm::broker::cmd::services, answerLimit);
  picture_.platformMemory = reply.get_u64(lm::broker::key::residentMemory);
  picture_.services.clear();
  for (const lm::message& record : reply.get_message_array_ref(lm::key::records)) {
    picture_.services.emplace_back(record);
  }
}

void RouterView::readGateway() {
  gateway_ = {};
  const auto it =
      std::find_if(picture_.services.begin(), picture_.services.end(),
                   [](const auto& service) { return service.number == lm::service::gateway; });
  if (it == picture_.services.end()) {
    gateway_.state = GatewayState::notInstalled;
    return;
  }
  switch (it->state) {
    case ServiceState::running:
      break;
    case ServiceState::starting:
      gateway_.state = GatewayState::starting;
      return;
    case ServiceState::waiting:
      gateway_.state = GatewayState::crashed;
      gateway_.startsIn = it->nextStart;
      return;
    case ServiceState::stopped:
    case ServiceState::leaving:
    case ServiceState::unknown:
      gateway_.state = GatewayState::off;
      return;
  }
  gateway_.process = it->pid;
  const lm::message settings =
      handler_.exchangeCmd(requestTo(gatewayPath), lm::cmd::get, answerLimit);
  if (lm::isError(settings)) {
    gateway_.state = GatewayState::notAnswering;
    gateway_.answer = Failure{lm::getError(settings)};
    return;
  }
  lumenctl::GatewayConfiguration configuration{lumenctl::Settings(settings), {}};
  for (const lm::message& record : table(gatewayPath)) configuration.objects.emplace_back(record);
  gateway_.state = configuration.settings.enabled ? GatewayState::on : GatewayState::off;
  gateway_.answer = std::move(configuration);
}

void RouterView::readInterfaces() {
  std::vector<lumenctl::Address> addresses;
  for (const lm::message& record : table(lm::addresses::path())) addresses.emplace_back(record);
  std::vector<lumenctl::Interface> interfaces;
  for (const lm::message& record : table(lm::interfaces::path())) interfaces.emplace_back(record);
  picture_.interfaces.clear();
  for (const lumenctl::Interface& interface : interfaces) {
    const lumenctl::GatewayObject use = lumenctl::useOf(interface, gateway_);
    if (use.role == Role::none) continue;
    picture_.interfaces.push_back({interface, use, lumenctl::addressesOf(interface.id, addresses)});
    const auto before = std::find_if(allInterfaces_.begin(), allInterfaces_.end(),
                                     [&](const auto& known) { return known.id == interface.id; });
    if (before == allInterfaces_.end() || before->state() == interface.state()) continue;
    add({wallClock(), interface.name + ": " + lumenctl::wordFor(interface.state()).text});
  }
  allInterfaces_ = std::move(interfaces);
}

// With what this program can see; `lumenctl upnp check` sees more.
void RouterView::judge() {
  lumenctl::Observation seen;
  seen.gateway = gateway_;
  for (const lumenctl::UsedInterface& used : picture_.interfaces) {
    if (used.use.disabled) continue;
    lumenctl::CheckedInterface interface;
    interface.name = used.interface.name;
    interface.role = used.use.role;
    interface.state = used.interface.state();
    interface.addresses = used.addresses;
    seen.interfaces.push_back(std::move(interface));
  }
  seen.gatewayFile.path = "/lumen/etc/services/upnp.ini";
  if (gateway_.state != GatewayState::notInstalled) {
    seen.gatewayFile.state = lumenctl::GatewayFile::State::right;
  }
  picture_.findings.clear();
  for (const lumenctl::Findings& some :
       {lumenctl::checkGateway(seen), lumenctl::checkLinks(seen.interfaces),
        lumenctl::checkExternalAddress(seen.interfaces),
        lumenctl::checkStalePorts(picture_.ruleList())}) {
    picture_.findings.insert(picture_.findings.end(), some.begin(), some.end());
  }
  picture_.gateway = gateway_.state;
  std::string now = lumenctl::wordFor(gateway_.state).text;
  for (const lumenctl::UsedInterface& used : picture_.interfaces) {
    if (!uses(used, Role::external)) continue;
    for (const Ipv4Address& address : used.addresses) now += " " + address.text();
  }
  if (std::exchange(seen_, now) != now) picture_.since = wallClock();
}

void RouterView::readPorts() {
  std::map<uint32_t, lumenctl::NatRule> rules;
  for (const lm::message& record : table(lm::nat::path())) {
    lumenctl::NatRule rule(record);
    rules.insert_or_assign(rule.id, std::move(rule));
  }
  picture_.refusedPorts.clear();
  const lm::message refused =
      handler_.exchangeCmd(requestTo(lm::nat::logPath()), lm::cmd::get, answerLimit);
  for (const lm::message& record : refused.get_message_array_ref(lm::key::records)) {
    picture_.refusedPorts.emplace_back(record);
  }
  readPinholes();
  const auto before = std::exchange(picture_.rules, std::move(rules));
  portsReadAt_ = clock_.now();
  if (reading_) return;
  for (const auto& [id, rule] : picture_.rules) {
    const auto known = before.find(id);
    if (known == before.end() || known->second.connections != rule.connections ||
        known->second.uses != rule.uses) {
      listener_.portChanged(rule);
    }
  }
}

void RouterView::readPinholes() {
  picture_.pinholes.clear();
  for (const lm::message& record : table(lm::pinholes::path())) {
    lumenctl::Pinhole pinhole(record);
    picture_.pinholes.insert_or_assign(pinhole.id, std::move(pinhole));
  }
}

void RouterView::refreshPorts() {
  if (portsReadAt_ && clock_.now() - *portsReadAt_ < freshness) return;
  readPorts();
}

std::vector<Sample> RouterView::refreshTraffic() {
  const lm::Clock::Time now = clock_.now();
  if (trafficReadAt_ && now - *trafficReadAt_ < freshness) return {};
  const auto before = std::exchange(picture_.counters, {});
  const auto passed = trafficReadAt_ ? now - *trafficReadAt_ : longestGap;
  trafficReadAt_ = now;
  std::vector<Sample> samples;
  const Milliseconds time = wallClock();
  for (const lumenctl::UsedInterface& used : picture_.interfaces) {
    if (!uses(used, Role::external)) continue;
    lm::message request = requestTo(lm::interfaces::path());
    request.insert_u32(lm::key::objectId, used.interface.id);
    const lm::message reply = handler_.exchangeCmd(request, lm::cmd::readObject, answerLimit);
    if (lm::isError(reply)) continue;
    const lumenctl::Counters counters(reply);
    picture_.counters.emplace(used.interface.name, counters);
    const auto known = before.find(used.interface.name);
    if (known == before.end() || passed >= longestGap) continue;
    const auto rate = [&](uint64_t from, uint64_t to) {
      return to < from ? 0 : (to - from) * 8000 / static_cast<uint64_t>(passed.count());
    };
    samples.push_back({time, used.interface.name,
                       rate(known->second.bytesReceived, counters.bytesReceived),
                       rate(known->second.bytesSent, counters.bytesSent)});
  }
  picture_.samples.insert(picture_.samples.end(), samples.begin(), samples.end());
  while (!picture_.samples.empty() && time - picture_.samples.front().time > keptTraffic) {
    picture_.samples.pop_front();
  }
  return samples;
}

// The newest of ports and of changes, in the order of time.
void RouterView::readPast() {
  for (const lm::message& record : table(historyPath)) takeChange(record);
  for (const lm::message& record : table(lm::nat::logPath())) takePortEvent(record);
  auto& all = picture_.happenings;
  std::stable_sort(all.begin(), all.end(),
                   [](const Happening& a, const Happening& b) { return a.time < b.time; });
  if (all.size() <= Picture::mostHappenings) return;
  all.erase(all.begin(), all.end() - static_cast<ptrdiff_t>(Picture::mostHappenings));
}

void RouterView::takeRule(const lm::message& record) {
  const uint32_t id = record.get_u32(lm::key::objectId);
  if (record.get_u32(lm::key::removed) != 0) {
    if (picture_.rules.erase(id) != 0) listener_.portClosed(id);
    return;
  }
  const lumenctl::NatRule rule(record);
  picture_.rules.insert_or_assign(id, rule);
  portsReadAt_.reset();  // its numbers of connections are not known
  listener_.portChanged(rule);
}

void RouterView::takePinhole(const lm::message& record) {
  const lumenctl::Pinhole pinhole(record);
  if (record.get_u32(lm::key::removed) != 0) {
    if (picture_.pinholes.erase(pinhole.id) != 0) listener_.pinholeClosed(pinhole.id);
    return;
  }
  picture_.pinholes.insert_or_assign(pinhole.id, pinhole);
  listener_.pinholeChanged(pinhole);
}

void RouterView::takePortEvent(const lm::message& record) {
  const lumenctl::PortEvent event(record);
  if (std::exchange(newestPortEvent_, std::max(newestPortEvent_, event.id)) >= event.id) return;
  if (event.event == static_cast<uint32_t>(lm::nat::Event::refused)) {
    ++picture_.refusals[refusalKind(event.reason)];
    return;
  }
  std::string text =
      nameOf(event) + " " + event.name() + " for " + event.clientText() + " by " + event.owner;
  if (!event.reason.empty()) text += " (" + event.reason + ")";
  add({event.time, std::move(text)});
}

void RouterView::takeChange(const lm::message& record) {
  const lumenctl::Change change(record);
  if (std::exchange(newestChange_, std::max(newestChange_, change.id)) >= change.id) return;
  add({change.time, change.text});
}

// News wait while the state is read: what that shows can be newer than they are.
void RouterView::add(Happening happening) {
  auto& all = picture_.happenings;
  if (reading_) {
    all.push_back(std::move(happening));
    return;
  }
  auto at = all.end();
  while (at != all.begin() && happening.time < std::prev(at)->time) --at;
  all.insert(at, happening);
  if (all.size() > Picture::mostHappenings) all.pop_front();
  listener_.happened(happening);
}

}  // namespace lumen::web
