#include "lumen/ctl/monitor/MessageNames.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "lumen/ctl/router/Router.h"
#include "platform/Keys.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Gateway.h"
#include "platform/wire/History.h"
#include "platform/wire/Identity.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"
#include "platform/wire/Resolver.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

struct CommandName {
  const char* name = nullptr;
  uint32_t command = 0;
};

constexpr CommandName sharedCommands[] = {
    {"list", lm::cmd::list},        {"read", lm::cmd::readObject},
    {"set", lm::cmd::setObject},    {"read-all", lm::cmd::readAll},
    {"add", lm::cmd::addObject},    {"remove", lm::cmd::removeObject},
    {"changed", lm::cmd::changed},  {"get-settings", lm::cmd::get},
    {"set-settings", lm::cmd::set}, {"interface-changed", lm::cmd::interfaceChanged},
};

constexpr FieldName sharedFields[] = {
    {"command", lm::key::command, Meaning::command},
    {"id", lm::key::objectId},
    {"records", lm::key::records},
    {"cursor", lm::key::cursor},
    {"dynamic", lm::key::dynamic},
    {"disabled", lm::key::disabled},
    {"removed", lm::key::removed},
};

constexpr CommandName brokerCommands[] = {
    {"register", lm::broker::cmd::registerServices},
    {"unregister", lm::broker::cmd::unregisterServices},
    {"subscribe", lm::broker::cmd::subscribe},
    {"unsubscribe", lm::broker::cmd::unsubscribe},
    {"services", lm::broker::cmd::services},
    {"monitor", lm::broker::cmd::monitor},
    {"cancel", lm::broker::cmd::cancel},
};

// A request to the broker and a service in its list use different keys, but for one.
constexpr FieldName brokerFields[] = {
    {"services", lm::broker::key::services},
    {"command", lm::broker::key::topicCommand, Meaning::command},
    {"path", lm::broker::key::topicSource},
    {"on", lm::monitor::key::on},
    {"number", lm::broker::listed::number},
    {"name", lm::broker::listed::name},
    {"state", lm::broker::listed::state},
    {"process", lm::broker::listed::pid},
    {"restarts", lm::broker::listed::restarts},
    {"starts-in-ms", lm::broker::listed::nextStart},
    {"program", lm::broker::listed::program},
    {"resident-memory", lm::broker::listed::residentMemory},
};

constexpr CommandName resolverCommands[] = {{"resolve", lm::resolver::cmd::resolve}};

constexpr FieldName resolverFields[] = {
    {"name", lm::resolver::key::hostName},
    {"address", lm::resolver::key::address, Meaning::address},
};

constexpr FieldName interfaceFields[] = {
    {"hardware-type", lm::interfaces::key::hardwareType},
    {"flags", lm::interfaces::key::flags},
    {"index", lm::interfaces::key::index},
    {"name", lm::interfaces::key::name},
    {"display-name", lm::interfaces::key::displayName},
    {"running", lm::interfaces::key::running},
    {"role", lm::interfaces::key::role},
    {"bytes-received", lm::interfaces::key::bytesReceived},
    {"bytes-sent", lm::interfaces::key::bytesSent},
    {"packets-received", lm::interfaces::key::packetsReceived},
    {"packets-sent", lm::interfaces::key::packetsSent},
};

constexpr FieldName addressFields[] = {
    {"interface", lm::addresses::key::interface},
    {"address", lm::addresses::key::address, Meaning::address},
};

constexpr FieldName natFields[] = {
    {"chain", lm::nat::key::chain},
    {"match-address", lm::nat::key::matchAddress},
    {"address-first", lm::nat::key::addressFirst, Meaning::address},
    {"address-last", lm::nat::key::addressLast, Meaning::address},
    {"match-port", lm::nat::key::matchPort},
    {"port-first", lm::nat::key::portFirst},
    {"port-last", lm::nat::key::portLast},
    {"match-protocol", lm::nat::key::matchProtocol},
    {"protocol", lm::nat::key::protocol},
    {"action", lm::nat::key::action},
    {"translate-address", lm::nat::key::translateAddress},
    {"client-first", lm::nat::key::clientFirst, Meaning::address},
    {"client-last", lm::nat::key::clientLast, Meaning::address},
    {"translate-port", lm::nat::key::translatePort},
    {"client-port-first", lm::nat::key::clientPortFirst},
    {"client-port-last", lm::nat::key::clientPortLast},
    {"lease", lm::nat::key::lease},
    {"any-port", lm::nat::key::anyPort},
    {"remote-networks", lm::nat::key::remoteNetworks, Meaning::address},
    {"remote-prefixes", lm::nat::key::remotePrefixes},
    {"refusal", lm::nat::key::refusal},
    {"holder", lm::nat::key::holder},
    {"ended", lm::nat::key::ended},
    {"owner", lm::nat::key::owner},
    {"seconds", lm::nat::key::seconds},
    {"connections", lm::nat::key::connections},
    {"uses", lm::nat::key::uses},
    {"stale", lm::nat::key::stale},
    {"closed", lm::nat::key::closed},
    {"event", lm::nat::key::event},
    {"time", lm::nat::key::time},
    {"user", lm::nat::key::user},
    {"reason", lm::nat::key::reason},
    {"host", lm::nat::key::host},
    {"external-ports", lm::nat::key::externalPorts},
    {"internal-clients", lm::nat::key::internalClients},
    {"internal-ports", lm::nat::key::internalPorts},
    {"router-ports", lm::nat::key::routerPorts},
    {"max-rules", lm::nat::key::maxRules},
    {"max-rules-per-client", lm::nat::key::maxRulesPerClient},
    {"reset", lm::nat::key::reset},
    {"reload", lm::nat::key::reload},
    {"remotes-possible", lm::nat::key::remotesPossible},
};

constexpr FieldName pinholeFields[] = {
    {"address", lm::pinholes::key::address}, {"protocol", lm::pinholes::key::protocol},
    {"port", lm::pinholes::key::port},       {"lease", lm::pinholes::key::lease},
    {"owner", lm::pinholes::key::owner},     {"seconds", lm::pinholes::key::seconds},
    {"ended", lm::pinholes::key::ended},     {"refusal", lm::pinholes::key::refusal},
    {"problem", lm::pinholes::key::problem},
};

constexpr FieldName pcpFields[] = {
    {"enabled", lm::pcp::key::enabled},   {"agents", lm::pcp::key::agents},
    {"served", lm::pcp::key::served},     {"problem", lm::pcp::key::problem},
    {"mappings", lm::pcp::key::mappings}, {"pinholes", lm::pcp::key::pinholes},
};

constexpr FieldName gatewayFields[] = {
    {"interface", lm::gateway::key::interface},
    {"type", lm::gateway::key::type},
    {"enabled", lm::gateway::settings::enabled},
    {"allow-disable-external", lm::gateway::settings::allowDisableExternal},
    {"show-dummy-rule", lm::gateway::settings::showDummyRule},
};

constexpr FieldName webFields[] = {
    {"enabled", lm::web::key::enabled}, {"port", lm::web::key::port},
    {"names", lm::web::key::names},     {"served", lm::web::key::served},
    {"problem", lm::web::key::problem},
};

constexpr FieldName identityFields[] = {{"identity", lm::identity::key::text}};

constexpr FieldName historyFields[] = {
    {"text", lm::history::key::text},
    {"undo", lm::history::key::undo, Meaning::undo},
    {"path", lm::history::key::path},
    {"time", lm::history::key::time},
};

struct Vocabulary {
  Subject subject;
  std::span<const FieldName> fields;
  std::span<const CommandName> commands = {};
};

constexpr Vocabulary vocabularies[] = {
    {{lm::service::broker, 0}, brokerFields, brokerCommands},
    {{lm::service::resolver, 0}, resolverFields, resolverCommands},
    {{lm::service::interfaces, lm::handler::interfaces}, interfaceFields},
    {{lm::service::interfaces, lm::handler::addresses}, addressFields},
    {{lm::service::interfaces, lm::handler::natRules}, natFields},
    {{lm::service::interfaces, lm::handler::portLog}, natFields},
    {{lm::service::interfaces, lm::handler::pinholes}, pinholeFields},
    {{lm::service::pcp, 0}, pcpFields},
    {{lm::service::gateway, 0}, gatewayFields},
    {{lm::service::web, 0}, webFields},
    {{lm::service::identity, 0}, identityFields},
    {{lm::service::history, 0}, historyFields},
};

const Vocabulary* vocabularyOf(Subject subject) {
  const auto* const found = std::find_if(std::begin(vocabularies), std::end(vocabularies),
                                         [&](const Vocabulary& vocabulary) {
                                           return vocabulary.subject.service == subject.service &&
                                                  vocabulary.subject.handler == subject.handler;
                                         });
  return found == std::end(vocabularies) ? nullptr : found;
}

const FieldName* findIn(std::span<const FieldName> fields, uint32_t key) {
  for (const FieldName& field : fields) {
    if (field.key == key) return &field;
  }
  return nullptr;
}

const CommandName* findIn(std::span<const CommandName> commands, uint32_t command) {
  for (const CommandName& candidate : commands) {
    if (candidate.command == command) return &candidate;
  }
  return nullptr;
}

}  // namespace

const FieldName* findField(Subject subject, uint32_t key) {
  const Vocabulary* const own = vocabularyOf(subject);
  const FieldName* const found = own == nullptr ? nullptr : findIn(own->fields, key);
  return found != nullptr ? found : findIn(sharedFields, key);
}

std::string commandName(Subject subject, uint32_t command) {
  const Vocabulary* const own = vocabularyOf(subject);
  const CommandName* found = own == nullptr ? nullptr : findIn(own->commands, command);
  if (found == nullptr) found = findIn(sharedCommands, command);
  if (found != nullptr) return found->name;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "command 0x%x", static_cast<unsigned>(command));
  return text.data();
}

}  // namespace lumenctl
