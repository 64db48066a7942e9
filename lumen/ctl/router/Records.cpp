#include "lumen/ctl/router/Records.h"

#include <netinet/in.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "lumen/ctl/text/Text.h"
#include "lumen/runtime/Fields.h"
#include "lumen/values/Ipv4Networks.h"
#include "platform/Keys.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Gateway.h"
#include "platform/wire/History.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

Role toRole(uint32_t value) {
  switch (value) {
    case static_cast<uint32_t>(Role::external):
      return Role::external;
    case static_cast<uint32_t>(Role::internal):
      return Role::internal;
    default:
      return Role::none;
  }
}

/// "tcp", "udp", or the number of another protocol.
std::string nameOf(uint32_t protocol) {
  if (protocol == IPPROTO_TCP) return "tcp";
  if (protocol == IPPROTO_UDP) return "udp";
  return std::to_string(protocol);
}

/// lumend lists no port above 65535.
lumen::Endpoint endpoint(uint32_t addressBytes, uint32_t port) {
  return {lumen::Ipv4Address::fromBytes(addressBytes), static_cast<uint16_t>(port)};
}

}  // namespace

std::string roleName(Role role) {
  switch (role) {
    case Role::external:
      return "external";
    case Role::internal:
      return "internal";
    case Role::none:
      break;
  }
  return {};
}

Interface::Interface(const lm::message& m) {
  const lm::interfaces::Record record = lm::interfaces::readRecord(m);
  id = record.id;
  name = record.name;
  role = toRole(record.role);
  hardwareType = record.hardwareType;
  index = record.index;
  disabled = record.disabled;
  running = record.running;
}

LinkState Interface::state() const {
  if (isAway()) return LinkState::away;
  if (disabled) return LinkState::down;
  return running ? LinkState::running : LinkState::noLink;
}

Counters::Counters(const lm::message& record)
    : bytesReceived(record.get_u64(lm::interfaces::key::bytesReceived)),
      bytesSent(record.get_u64(lm::interfaces::key::bytesSent)),
      packetsReceived(record.get_u64(lm::interfaces::key::packetsReceived)),
      packetsSent(record.get_u64(lm::interfaces::key::packetsSent)) {}

Address::Address(const lm::message& m) {
  const lm::addresses::Record record = lm::addresses::readRecord(m);
  id = record.id;
  interfaceId = record.interface;
  address = lumen::Ipv4Address::fromBytes(record.address);
  disabled = record.disabled;
}

std::vector<lumen::Ipv4Address> addressesOf(uint32_t interfaceId,
                                            const std::vector<Address>& addresses) {
  std::vector<lumen::Ipv4Address> result;
  for (const Address& address : addresses) {
    if (address.interfaceId == interfaceId) result.push_back(address.address);
  }
  return result;
}

NatRule::NatRule(const lm::message& m) {
  lm::nat::Record record = lm::nat::readRecord(m);
  id = record.id;
  external = endpoint(record.rule.address, record.rule.port);
  protocol = record.rule.protocol;
  client = endpoint(record.rule.client, record.rule.clientPort);
  disabled = record.rule.disabled;
  closed = record.closed;
  stale = record.stale;
  owner = std::move(record.owner);
  openFor = std::chrono::seconds(record.seconds);
  lumen::Ipv4Networks remotes;
  for (const lm::nat::RemoteNetwork& remote : record.rule.remotes) {
    remotes.emplace_back(lumen::Ipv4Address::fromBytes(remote.address),
                         std::min(remote.prefix, 32U));
  }
  from = lumen::networksText(remotes);
  if (record.rule.lease) left = std::chrono::seconds(*record.rule.lease);
  connections = record.connections;
  uses = record.uses;
}

std::string NatRule::protocolName() const { return nameOf(protocol); }

Pinhole::Pinhole(const lm::message& m) {
  lm::pinholes::Record record = lm::pinholes::readRecord(m);
  id = record.id;
  host = std::move(record.pinhole.address);
  protocol = record.pinhole.protocol;
  port = record.pinhole.port;
  owner = std::move(record.owner);
  openFor = std::chrono::seconds(record.seconds);
  left = std::chrono::seconds(record.pinhole.lease);
  from = std::move(record.pinhole.remotes);
}

std::string Pinhole::protocolName() const { return nameOf(protocol); }

PinholeSettings::PinholeSettings(const lm::message& record)
    : problem(record.get_string(lm::pinholes::key::problem)),
      remotesPossible(record.get_bool(lm::pinholes::key::remotesPossible)) {}

PortState NatRule::state() const {
  if (closed) return PortState::closed;
  if (disabled) return PortState::disabled;
  return stale ? PortState::stale : PortState::open;
}

NatPolicy::NatPolicy(const lm::message& record)
    : externalPorts(record.get_string(lm::nat::key::externalPorts)),
      internalClients(record.get_string(lm::nat::key::internalClients)),
      internalPorts(record.get_string(lm::nat::key::internalPorts)),
      routerPorts(record.get_string(lm::nat::key::routerPorts)),
      maxRules(record.get_u32(lm::nat::key::maxRules)),
      maxRulesPerClient(record.get_u32(lm::nat::key::maxRulesPerClient)),
      remotesPossible(record.get_bool(lm::nat::key::remotesPossible)) {}

Change::Change(const lm::message& record)
    : id(record.get_u32(lm::key::objectId)),
      time(std::chrono::seconds(record.get_u64(lm::history::key::time))),
      text(record.get_string(lm::history::key::text)) {
  const std::vector<uint32_t>& path = record.get_u32_array_ref(lm::history::key::path);
  if (!path.empty()) service = path[0];
  if (path.size() > 1) handler = path[1];
  const lm::message message = record.get_message(lm::history::key::undo);
  undoCommand = message.get_u32(lm::key::command);
  undo = lm::withoutTransportFields(message);
}

Service::Service(const lm::message& record)
    : number(record.get_u32(lm::broker::listed::number)),
      name(record.get_string(lm::broker::listed::name)),
      state(serviceState(record.get_string(lm::broker::listed::state))),
      pid(record.get_u32(lm::broker::listed::pid)),
      restarts(record.get_u32(lm::broker::listed::restarts)),
      nextStart(record.get_u64(lm::broker::listed::nextStart)),
      program(record.get_string(lm::broker::listed::program)),
      residentMemory(record.get_u64(lm::broker::listed::residentMemory)) {}

WebPage::WebPage(const lm::message& record)
    : enabled(record.get_bool(lm::web::key::enabled)),
      port(record.get_u32(lm::web::key::port)),
      names(record.get_string(lm::web::key::names)),
      served(record.get_string(lm::web::key::served)),
      problem(record.get_string(lm::web::key::problem)) {}

PcpServer::PcpServer(const lm::message& record)
    : enabled(record.get_bool(lm::pcp::key::enabled)),
      agents(record.get_string(lm::pcp::key::agents)),
      served(record.get_string(lm::pcp::key::served)),
      problem(record.get_string(lm::pcp::key::problem)),
      mappings(record.get_u32(lm::pcp::key::mappings)),
      pinholes(record.get_u32(lm::pcp::key::pinholes)) {}

std::vector<std::string> WebPage::urls() const {
  constexpr std::string_view defaultPort = ":80";
  std::vector<std::string> found;
  size_t begin = 0;
  while (begin < served.size()) {
    const size_t end = std::min(served.find(' ', begin), served.size());
    std::string place = served.substr(begin, end - begin);
    if (place.ends_with(defaultPort)) place.resize(place.size() - defaultPort.size());
    found.push_back("http://" + place + "/");
    begin = end + 1;
  }
  return found;
}

GatewayObject::GatewayObject(const lm::message& record) : id(record.get_u32(lm::key::objectId)) {
  apply(record);
}

void GatewayObject::apply(const lm::message& record) {
  disabled = record.get_bool(lm::key::disabled, disabled);
  interfaceId = record.get_u32(lm::gateway::key::interface, interfaceId);
  role = toRole(record.get_u32(lm::gateway::key::type, static_cast<uint32_t>(role)));
}

void Settings::apply(const lm::message& record) {
  enabled = record.get_bool(lm::gateway::settings::enabled, enabled);
  allowDisableExternal =
      record.get_bool(lm::gateway::settings::allowDisableExternal, allowDisableExternal);
  showDummyRule = record.get_bool(lm::gateway::settings::showDummyRule, showDummyRule);
}

}  // namespace lumenctl
