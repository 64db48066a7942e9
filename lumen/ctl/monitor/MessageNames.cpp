#include "lumen/ctl/monitor/MessageNames.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "lumen/ctl/router/Keys.h"
#include "lumen/ctl/router/Router.h"
#include "lumen/services/addresses/AddressKeys.h"
#include "lumen/services/broker/BrokerKeys.h"
#include "lumen/services/history/HistoryKeys.h"
#include "lumen/services/interfaces/InterfaceKeys.h"
#include "lumen/services/nat/NatKeys.h"
#include "platform/Keys.h"

namespace lumenctl {

namespace {

struct CommandName {
  const char* name = nullptr;
  uint32_t command = 0;
};

constexpr CommandName everybodysCommands[] = {
    {"list", lm::cmd::list},        {"read", lm::cmd::readObject},
    {"set", lm::cmd::setObject},    {"read-all", lm::cmd::readAll},
    {"add", lm::cmd::addObject},    {"remove", lm::cmd::removeObject},
    {"changed", lm::cmd::changed},  {"get-settings", lm::cmd::get},
    {"set-settings", lm::cmd::set}, {"interface-changed", lm::cmd::interfaceChanged},
};

constexpr FieldName everybodysFields[] = {
    {"command", lm::key::command, Meaning::command},
    {"id", lm::key::objectId},
    {"records", lm::key::records},
    {"cursor", lm::key::cursor},
    {"dynamic", lm::key::dynamic},
    {"disabled", lm::key::disabled},
    {"removed", lm::key::removed},
};

constexpr CommandName brokerCommands[] = {
    {"register", lumen::brokercmd::registerServices},
    {"unregister", lumen::brokercmd::unregisterServices},
    {"subscribe", lumen::brokercmd::subscribe},
    {"unsubscribe", lumen::brokercmd::unsubscribe},
    {"services", lumen::brokercmd::services},
    {"monitor", lumen::brokercmd::monitor},
    {"cancel", lumen::brokercmd::cancel},
};

// A request to the broker and a service in its list use different keys, but for one.
constexpr FieldName brokerFields[] = {
    {"services", lumen::brokerkey::services},
    {"command", lumen::brokerkey::command, Meaning::command},
    {"path", lumen::brokerkey::path},
    {"on", lumen::monitorkey::on},
    {"number", lumen::servicekey::number},
    {"name", lumen::servicekey::name},
    {"state", lumen::servicekey::state},
    {"process", lumen::servicekey::pid},
    {"restarts", lumen::servicekey::restarts},
    {"starts-in-ms", lumen::servicekey::nextStart},
};

constexpr CommandName resolverCommands[] = {{"resolve", resolvercmd::resolve}};

constexpr FieldName resolverFields[] = {
    {"name", resolverkey::name},
    {"address", resolverkey::address, Meaning::address},
};

constexpr FieldName interfaceFields[] = {
    {"hardware-type", lumen::interfaces::key::hardwareType},
    {"flags", lumen::interfaces::key::flags},
    {"index", lumen::interfaces::key::index},
    {"name", lumen::interfaces::key::name},
    {"display-name", lumen::interfaces::key::displayName},
    {"running", lumen::interfaces::key::running},
    {"role", lumen::interfaces::key::role},
    {"bytes-received", lumen::interfaces::key::bytesReceived},
    {"bytes-sent", lumen::interfaces::key::bytesSent},
    {"packets-received", lumen::interfaces::key::packetsReceived},
    {"packets-sent", lumen::interfaces::key::packetsSent},
};

constexpr FieldName addressFields[] = {
    {"interface", lumen::addresses::key::interface},
    {"address", lumen::addresses::key::address, Meaning::address},
};

constexpr FieldName natFields[] = {
    {"chain", lumen::nat::key::chain},
    {"match-address", lumen::nat::key::matchAddress},
    {"address-first", lumen::nat::key::addressFirst, Meaning::address},
    {"address-last", lumen::nat::key::addressLast, Meaning::address},
    {"match-port", lumen::nat::key::matchPort},
    {"port-first", lumen::nat::key::portFirst},
    {"port-last", lumen::nat::key::portLast},
    {"match-protocol", lumen::nat::key::matchProtocol},
    {"protocol", lumen::nat::key::protocol},
    {"action", lumen::nat::key::action},
    {"translate-address", lumen::nat::key::translateAddress},
    {"client-first", lumen::nat::key::clientFirst, Meaning::address},
    {"client-last", lumen::nat::key::clientLast, Meaning::address},
    {"translate-port", lumen::nat::key::translatePort},
    {"client-port-first", lumen::nat::key::clientPortFirst},
    {"client-port-last", lumen::nat::key::clientPortLast},
    {"owner", lumen::nat::key::owner},
    {"seconds", lumen::nat::key::seconds},
    {"connections", lumen::nat::key::connections},
    {"uses", lumen::nat::key::uses},
    {"stale", lumen::nat::key::stale},
    {"closed", lumen::nat::key::closed},
    {"external-ports", lumen::nat::key::externalPorts},
    {"internal-clients", lumen::nat::key::internalClients},
    {"max-rules", lumen::nat::key::maxRules},
    {"max-rules-per-client", lumen::nat::key::maxRulesPerClient},
    {"reset", lumen::nat::key::reset},
    {"reload", lumen::nat::key::reload},
};

constexpr FieldName gatewayFields[] = {
    {"interface", gatewaykey::interface},
    {"type", gatewaykey::type},
    {"enabled", settingskey::enabled},
    {"allow-disable-external", settingskey::allowDisableExternal},
    {"show-dummy-rule", settingskey::showDummyRule},
};

constexpr FieldName identityFields[] = {{"identity", identitykey::text}};

constexpr FieldName historyFields[] = {
    {"text", lumen::history::key::text},
    {"undo", lumen::history::key::undo, Meaning::undo},
    {"path", lumen::history::key::path},
    {"time", lumen::history::key::time},
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
