#include "lumen/ctl/router/Router.h"

#include <utility>

#include "lumen/ctl/text/Errors.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Gateway.h"
#include "platform/wire/Identity.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

using Path = std::vector<uint32_t>;

const Path brokerPath = {lm::service::broker};
const Path interfacesPath = {lm::service::interfaces, lm::handler::interfaces};
const Path addressesPath = {lm::service::interfaces, lm::handler::addresses};
const Path natRulesPath = {lm::service::interfaces, lm::handler::natRules};
const Path identityPath = {lm::service::identity};
const Path historyPath = {lm::service::history};
const Path gatewayPath = {lm::service::gateway, 0};

template <typename T>
std::vector<T> decoded(const std::vector<lm::message>& records) {
  return {records.begin(), records.end()};
}

lm::message withId(uint32_t id) {
  lm::message request;
  request.insert_u32(lm::key::objectId, id);
  return request;
}

void insertFields(lm::message& request, const GatewayObject& object) {
  request.insert_bool(lm::key::disabled, object.disabled);
  request.insert_u32(lm::gateway::key::interface, object.interfaceId);
  request.insert_u32(lm::gateway::key::type, static_cast<uint32_t>(object.role));
}

}  // namespace

lm::message Router::exchange(const Path& destination, uint32_t command, lm::message request) {
  const std::chrono::milliseconds limit = destination == gatewayPath ? gatewayLimit_ : usualLimit;
  lumen::Result<lm::message> reply =
      client_.exchange(destination, command, std::move(request), limit);
  if (!reply) throw PlatformSilent(reply.why());
  if (lm::isError(*reply)) throw Refused(lm::getError(*reply));
  return std::move(*reply);
}

std::vector<lm::message> Router::table(const Path& destination, uint32_t command) {
  std::vector<lm::message> records;
  std::optional<uint32_t> cursor;
  do {
    lm::message request;
    if (cursor) request.insert_u32(lm::key::cursor, *cursor);
    const lm::message page = exchange(destination, command, std::move(request));
    const auto& pageRecords = page.get_message_array_ref(lm::key::records);
    records.insert(records.end(), pageRecords.begin(), pageRecords.end());
    const uint32_t next = page.get_u32(lm::key::cursor, lm::none);
    if (cursor && next <= *cursor) throw Refused("the table's pages do not end");
    cursor = next;
  } while (*cursor != lm::none);
  return records;
}

std::vector<Interface> Router::interfaces() {
  return decoded<Interface>(table(interfacesPath, lm::cmd::list));
}

Interface Router::interfaceNamed(const std::string& name) {
  for (const Interface& candidate : interfaces()) {
    if (candidate.name == name) return candidate;
  }
  throw Refused("there is no interface '" + name + "'");
}

Counters Router::counters(uint32_t interfaceId) {
  return Counters(exchange(interfacesPath, lm::cmd::readObject, withId(interfaceId)));
}

uint32_t Router::keep(const std::string& name, Role role) {
  lm::message request;
  request.insert_string(lm::interfaces::key::name, name);
  request.insert_u32(lm::interfaces::key::role, static_cast<uint32_t>(role));
  const lm::message reply = exchange(interfacesPath, lm::cmd::addObject, std::move(request));
  return reply.get_u32(lm::key::objectId);
}

void Router::forget(uint32_t interfaceId) {
  exchange(interfacesPath, lm::cmd::removeObject, withId(interfaceId));
}

std::vector<Address> Router::addresses() {
  return decoded<Address>(table(addressesPath, lm::cmd::readAll));
}

std::vector<NatRule> Router::rules() {
  return decoded<NatRule>(table(natRulesPath, lm::cmd::readAll));
}

std::vector<Pinhole> Router::pinholes() {
  return decoded<Pinhole>(table(lm::pinholes::path(), lm::cmd::readAll));
}

void Router::closePinhole(uint32_t id) {
  exchange(lm::pinholes::path(), lm::cmd::removeObject, withId(id));
}

PinholeSettings Router::pinholeSettings() {
  return PinholeSettings(exchange(lm::pinholes::path(), lm::cmd::get));
}

void Router::closeRule(uint32_t id) {
  lm::message request = withId(id);
  request.insert_bool(lm::nat::key::closed, true);
  exchange(natRulesPath, lm::cmd::setObject, std::move(request));
}

std::vector<PortEvent> Router::portEvents() {
  return decoded<PortEvent>(table(lm::nat::logPath(), lm::cmd::readAll));
}

std::vector<PortEvent> Router::refusalsOfOwnPorts() {
  const lm::message answer = exchange(lm::nat::logPath(), lm::cmd::get);
  return decoded<PortEvent>(answer.get_message_array_ref(lm::key::records));
}

void Router::followPortEvents() {
  lm::message request;
  request.insert_u32(lm::broker::key::topicCommand, lm::cmd::changed);
  request.insert_u32_array(lm::broker::key::topicSource, lm::nat::logPath());
  exchange(brokerPath, lm::broker::cmd::subscribe, std::move(request));
}

std::optional<std::vector<PortEvent>> Router::nextPortEvents() {
  while (true) {
    const lumen::Result<std::optional<lm::message>> next = client_.notification();
    if (!next) throw Refused(next.why());
    if (!*next) return std::nullopt;
    const lm::message& news = **next;
    if (news.get_u32(lm::key::command) != lm::cmd::changed) continue;
    if (news.get_u32_array_ref(lm::key::source) != lm::nat::logPath()) continue;
    return decoded<PortEvent>(news.get_message_array_ref(lm::key::records));
  }
}

NatPolicy Router::policy() { return NatPolicy(exchange(natRulesPath, lm::cmd::get)); }

void Router::changePolicy(const NatPolicyChange& change) {
  namespace key = lm::nat::key;
  lm::message request;
  if (change.reset) request.insert_bool(key::reset, true);
  if (change.reload) request.insert_bool(key::reload, true);
  if (change.externalPorts) request.insert_string(key::externalPorts, *change.externalPorts);
  if (change.internalClients) request.insert_string(key::internalClients, *change.internalClients);
  if (change.internalPorts) request.insert_string(key::internalPorts, *change.internalPorts);
  if (change.routerPorts) request.insert_string(key::routerPorts, *change.routerPorts);
  if (change.maxRules) request.insert_u32(key::maxRules, *change.maxRules);
  if (change.maxRulesPerClient) {
    request.insert_u32(key::maxRulesPerClient, *change.maxRulesPerClient);
  }
  exchange(natRulesPath, lm::cmd::set, std::move(request));
}

std::vector<Service> Router::services() {
  const lm::message reply = exchange(brokerPath, lm::broker::cmd::services);
  return decoded<Service>(reply.get_message_array_ref(lm::key::records));
}

std::string Router::identity() {
  return exchange(identityPath, lm::cmd::get).get_string(lm::identity::key::text);
}

std::vector<Change> Router::history() {
  return decoded<Change>(table(historyPath, lm::cmd::readAll));
}

void Router::undo(const Change& change) {
  exchange({change.service, change.handler}, change.undoCommand, change.undo);
}

void Router::removeFromHistory(uint32_t id) {
  exchange(historyPath, lm::cmd::removeObject, withId(id));
}

void Router::startMonitoring() {
  lm::message request;
  request.insert_bool(lm::monitor::key::on, true);
  exchange(brokerPath, lm::broker::cmd::monitor, std::move(request));
}

std::optional<lm::message> Router::nextMonitored() {
  while (true) {
    lumen::Result<std::optional<lm::message>> next = client_.notification();
    if (!next) throw Refused(next.why());
    const bool shown = !*next || (*next)->get_u32(lm::key::command) == lm::broker::cmd::monitor;
    if (shown) return std::move(*next);
  }
}

WebPage Router::webPage() { return WebPage(exchange(lm::web::path(), lm::cmd::get)); }

void Router::changeWebPage(const WebPageChange& change) {
  lm::message request;
  if (change.enabled) request.insert_bool(lm::web::key::enabled, *change.enabled);
  if (change.port) request.insert_u32(lm::web::key::port, *change.port);
  if (change.names) request.insert_string(lm::web::key::names, *change.names);
  exchange(lm::web::path(), lm::cmd::set, std::move(request));
}

PcpServer Router::pcpServer() { return PcpServer(exchange(lm::pcp::path(), lm::cmd::get)); }

void Router::changePcpServer(const PcpServerChange& change) {
  lm::message request;
  if (change.enabled) request.insert_bool(lm::pcp::key::enabled, *change.enabled);
  if (change.agents) request.insert_string(lm::pcp::key::agents, *change.agents);
  exchange(lm::pcp::path(), lm::cmd::set, std::move(request));
}

Settings Router::settings() { return Settings(exchange(gatewayPath, lm::cmd::get)); }

void Router::writeSettings(const Settings& settings) {
  lm::message request;
  request.insert_bool(lm::gateway::settings::enabled, settings.enabled);
  request.insert_bool(lm::gateway::settings::allowDisableExternal, settings.allowDisableExternal);
  request.insert_bool(lm::gateway::settings::showDummyRule, settings.showDummyRule);
  exchange(gatewayPath, lm::cmd::set, std::move(request));
}

std::vector<GatewayObject> Router::gatewayObjects() {
  return decoded<GatewayObject>(table(gatewayPath, lm::cmd::readAll));
}

GatewayConfiguration Router::gatewayConfiguration() {
  Settings current = settings();
  return {current, gatewayObjects()};
}

void Router::addGatewayObject(const GatewayObject& object) {
  lm::message request;
  insertFields(request, object);
  exchange(gatewayPath, lm::cmd::addObject, std::move(request));
}

void Router::setGatewayObject(const GatewayObject& object) {
  lm::message request = withId(object.id);
  insertFields(request, object);
  exchange(gatewayPath, lm::cmd::setObject, std::move(request));
}

void Router::removeGatewayObject(uint32_t id) {
  exchange(gatewayPath, lm::cmd::removeObject, withId(id));
}

}  // namespace lumenctl
