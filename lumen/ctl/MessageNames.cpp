#include "lumen/ctl/MessageNames.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "lumen/ctl/Keys.h"
#include "lumen/ctl/Router.h"
#include "lumen/services/addresses/AddressKeys.h"
#include "lumen/services/broker/BrokerKeys.h"
#include "lumen/services/history/HistoryKeys.h"
#include "lumen/services/interfaces/InterfaceKeys.h"
#include "lumen/services/nat/NatKeys.h"
#include "platform/Keys.h"

namespace lumenctl {

namespace {

struct CommandName {
  uint32_t command = 0;
  const char* name = nullptr;
};

constexpr CommandName everybodysCommands[] = {
    {lm::cmd::list, "list"},        {lm::cmd::readObject, "read"},
    {lm::cmd::setObject, "set"},    {lm::cmd::readAll, "read-all"},
    {lm::cmd::addObject, "add"},    {lm::cmd::removeObject, "remove"},
    {lm::cmd::changed, "changed"},  {lm::cmd::get, "get-settings"},
    {lm::cmd::set, "set-settings"}, {lm::cmd::interfaceChanged, "interface-changed"},
};

constexpr FieldName everybodysFields[] = {
    {lm::key::command, "command", Meaning::command},
    {lm::key::objectId, "id"},
    {lm::key::records, "records"},
    {lm::key::cursor, "cursor"},
    {lm::key::dynamic, "dynamic"},
    {lm::key::disabled, "disabled"},
    {lm::key::removed, "removed"},
};

constexpr CommandName brokerCommands[] = {
    {lumen::brokercmd::registerServices, "register"},
    {lumen::brokercmd::unregisterServices, "unregister"},
    {lumen::brokercmd::subscribe, "subscribe"},
    {lumen::brokercmd::unsubscribe, "unsubscribe"},
    {lumen::brokercmd::services, "services"},
    {lumen::brokercmd::monitor, "monitor"},
};

// A request to the broker and a service in its list use different keys, but for one.
constexpr FieldName brokerFields[] = {
    {lumen::brokerkey::services, "services"},
    {lumen::brokerkey::command, "command", Meaning::command},
    {lumen::brokerkey::path, "path"},
    {lumen::monitorkey::on, "on"},
    {lumen::servicekey::number, "number"},
    {lumen::servicekey::name, "name"},
    {lumen::servicekey::state, "state"},
    {lumen::servicekey::pid, "process"},
    {lumen::servicekey::restarts, "restarts"},
    {lumen::servicekey::nextStart, "starts-in-ms"},
};

constexpr CommandName resolverCommands[] = {{resolvercmd::resolve, "resolve"}};

constexpr FieldName resolverFields[] = {
    {resolverkey::name, "name"},
    {resolverkey::address, "address", Meaning::address},
};

constexpr FieldName interfaceFields[] = {
    {lumen::interfaces::key::hardwareType, "hardware-type"},
    {lumen::interfaces::key::flags, "flags"},
    {lumen::interfaces::key::index, "index"},
    {lumen::interfaces::key::name, "name"},
    {lumen::interfaces::key::displayName, "display-name"},
    {lumen::interfaces::key::running, "running"},
    {lumen::interfaces::key::role, "role"},
    {lumen::interfaces::key::bytesReceived, "bytes-received"},
    {lumen::interfaces::key::bytesSent, "bytes-sent"},
    {lumen::interfaces::key::packetsReceived, "packets-received"},
    {lumen::interfaces::key::packetsSent, "packets-sent"},
};

constexpr FieldName addressFields[] = {
    {lumen::addresses::key::interface, "interface"},
    {lumen::addresses::key::address, "address", Meaning::address},
};

constexpr FieldName natFields[] = {
    {lumen::nat::key::chain, "chain"},
    {lumen::nat::key::matchAddress, "match-address"},
    {lumen::nat::key::addressFirst, "address-first", Meaning::address},
    {lumen::nat::key::addressLast, "address-last", Meaning::address},
    {lumen::nat::key::matchPort, "match-port"},
    {lumen::nat::key::portFirst, "port-first"},
    {lumen::nat::key::portLast, "port-last"},
    {lumen::nat::key::matchProtocol, "match-protocol"},
    {lumen::nat::key::protocol, "protocol"},
    {lumen::nat::key::action, "action"},
    {lumen::nat::key::translateAddress, "translate-address"},
    {lumen::nat::key::clientFirst, "client-first", Meaning::address},
    {lumen::nat::key::clientLast, "client-last", Meaning::address},
    {lumen::nat::key::translatePort, "translate-port"},
    {lumen::nat::key::clientPortFirst, "client-port-first"},
    {lumen::nat::key::clientPortLast, "client-port-last"},
    {lumen::nat::key::owner, "owner"},
    {lumen::nat::key::seconds, "seconds"},
    {lumen::nat::key::connections, "connections"},
    {lumen::nat::key::stale, "stale"},
    {lumen::nat::key::closed, "closed"},
    {lumen::nat::key::externalPorts, "external-ports"},
    {lumen::nat::key::internalClients, "internal-clients"},
    {lumen::nat::key::maxRules, "max-rules"},
    {lumen::nat::key::maxRulesPerClient, "max-rules-per-client"},
    {lumen::nat::key::reset, "reset"},
};

constexpr FieldName gatewayFields[] = {
    {gatewaykey::interface, "interface"},
    {gatewaykey::type, "type"},
    {settingskey::enabled, "enabled"},
    {settingskey::allowDisableExternal, "allow-disable-external"},
    {settingskey::showDummyRule, "show-dummy-rule"},
};

constexpr FieldName identityFields[] = {{identitykey::text, "identity"}};

constexpr FieldName historyFields[] = {
    {lumen::history::key::text, "text"},
    {lumen::history::key::undo, "undo", Meaning::undo},
    {lumen::history::key::path, "path"},
    {lumen::history::key::time, "time"},
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
    {{Router::gatewayService, 0}, gatewayFields},
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
  return found != nullptr ? found : findIn(everybodysFields, key);
}

std::string commandName(Subject subject, uint32_t command) {
  const Vocabulary* const own = vocabularyOf(subject);
  const CommandName* found = own == nullptr ? nullptr : findIn(own->commands, command);
  if (found == nullptr) found = findIn(everybodysCommands, command);
  if (found != nullptr) return found->name;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "command 0x%x", static_cast<unsigned>(command));
  return text.data();
}

}  // namespace lumenctl
