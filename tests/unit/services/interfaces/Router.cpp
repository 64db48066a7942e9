#include "services/interfaces/Router.h"

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"

namespace lumen {

std::string Router::record(uint32_t id, uint32_t index, const std::string& name,
                           const std::string& state, uint32_t hardwareType, uint32_t flags) {
  return "id=" + std::to_string(id) + " type=" + std::to_string(hardwareType) +
         " flags=" + std::to_string(flags) + " index=" + std::to_string(index) + " name=" + name +
         " display=" + name + " " + state;
}

void Router::starts() {
  addressTable = std::make_unique<AddressTable>(notifier);
  interfaceTable = std::make_unique<InterfaceTable>(kernel, *addressTable, notifier, keptNames,
                                                    store_.path(), clock);
  interfaceTable->start();
  (void)notified();
}

void Router::restarts() {
  interfaceTable.reset();
  starts();
}

void Router::startsWithWan(bool running) {
  kernel.appears("wan0", true, running);
  starts();
  kernel.getsAddress("wan0", "45.45.45.2/24");
  (void)notified();
}

void Router::storeHolds(uint32_t record, const lm::message& content) {
  store_.write(std::to_string(record), lm::encode(content));
}

lm::message Router::object(uint32_t id) {
  lm::message request;
  request.insert_u32(lm::key::objectId, id);
  return request;
}

lm::message Router::asks(const Caller& caller, uint32_t command, const lm::message& request) {
  return interfaceTable->handle(caller, command, request);
}

lm::message Router::asksAddresses(uint32_t command, const lm::message& request) {
  return addressTable->handle(daemon, command, request);
}

lm::message Router::administratorKeeps(const std::string& name, uint32_t role) {
  lm::message request;
  request.insert_string(lm::interfaces::key::name, name);
  request.insert_u32(lm::interfaces::key::role, role);
  return asks(administrator, lm::cmd::addObject, request);
}

lm::message Router::administratorForgets(const std::string& name) {
  return asks(administrator, lm::cmd::removeObject, object(idOf(name)));
}

std::string Router::setsDisabled(const Caller& caller, const std::string& name, bool disabled) {
  lm::message request = object(idOf(name));
  request.insert_bool(lm::key::disabled, disabled);
  return text(asks(caller, lm::cmd::setObject, request));
}

Router::Lines Router::lists() { return recordTexts(asks(daemon, lm::cmd::list)); }

uint32_t Router::idOf(const std::string& name) {
  for (uint32_t cursor = 0; cursor != lm::none;) {
    lm::message request;
    request.insert_u32(lm::key::cursor, cursor);
    const lm::message page = asks(administrator, lm::cmd::list, request);
    for (const lm::message& m : page.get_message_array_ref(lm::key::records)) {
      if (m.get_string(lm::interfaces::key::name) == name) return m.get_u32(lm::key::objectId);
    }
    cursor = page.get_u32(lm::key::cursor, lm::none);
  }
  return 0;
}

}  // namespace lumen
