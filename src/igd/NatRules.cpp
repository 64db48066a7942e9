#include "igd/NatRules.h"

#include "platform/Keys.h"
#include "platform/Looper.h"

namespace nat {

namespace {

// Fields of a rule. Addresses and ports are ranges, matches and translations each have a switch.
constexpr uint32_t chain = 0x20000027;
constexpr uint32_t matchAddress = 0x000001a3;
constexpr uint32_t addressFirst = 0x08000034;
constexpr uint32_t addressLast = 0x08000035;
constexpr uint32_t matchPort = 0x00000196;
constexpr uint32_t portFirst = 0x08000009;
constexpr uint32_t portLast = 0x0800000a;
constexpr uint32_t matchProtocol = 0x00000194;
constexpr uint32_t ipProtocol = 0x0800000b;
constexpr uint32_t action = 0x08000028;
constexpr uint32_t translateAddress = 0x000003ee;
constexpr uint32_t clientFirst = 0x080003e8;
constexpr uint32_t clientLast = 0x080003e9;
constexpr uint32_t translatePort = 0x000003ef;
constexpr uint32_t clientPortFirst = 0x080003ea;
constexpr uint32_t clientPortLast = 0x080003eb;

constexpr uint32_t translateDestination = 22;  // an action

// IP protocol numbers (IANA).
constexpr uint32_t ipTcp = 6;
constexpr uint32_t ipUdp = 17;

lm::message requestToTable() {
  lm::message request;
  request.insert_u32_array(lm::key::destination, {lm::service::interfaces, lm::handler::natRules});
  return request;
}

lm::message exchange(const lm::message& request, uint32_t command,
                     lm::GivenUp late = lm::GivenUp::undone) {
  return lm::getLooper().exchangeCmd(request, command, lm::exchangeLimit, late);
}

lm::message removal(const PortMap& mapping) {
  lm::message request = requestToTable();
  request.insert_u32(lm::key::objectId, mapping.ruleId);
  return request;
}

}  // namespace

lm::message addRule(const Id& id, const PortMap& mapping, uint32_t externalIP) {
  lm::message request = requestToTable();
  request.insert_bool(lm::key::dynamic, true);
  request.insert_bool(lm::key::disabled, !mapping.enabled);
  request.insert_string(chain, "dstnat");
  request.insert_bool(matchAddress, true);
  request.insert_be32(addressFirst, externalIP);
  request.insert_be32(addressLast, externalIP);
  request.insert_bool(matchPort, true);
  request.insert_u32(portFirst, id.externalPort);
  request.insert_u32(portLast, id.externalPort);
  request.insert_bool(matchProtocol, true);
  request.insert_u32(ipProtocol, id.protocol == Id::tcp ? ipTcp : ipUdp);
  request.insert_u32(action, translateDestination);
  request.insert_bool(translateAddress, true);
  request.insert_be32(clientFirst, mapping.internalClient);
  request.insert_be32(clientLast, mapping.internalClient);
  request.insert_bool(translatePort, true);
  request.insert_u32(clientPortFirst, mapping.internalPort);
  request.insert_u32(clientPortLast, mapping.internalPort);
  return exchange(request, lm::cmd::addObject);
}

lm::message setRule(const PortMap& mapping) {
  lm::message request = requestToTable();
  request.insert_u32(lm::key::objectId, mapping.ruleId);
  request.insert_bool(lm::key::disabled, !mapping.enabled);
  request.insert_be32(clientFirst, mapping.internalClient);
  request.insert_be32(clientLast, mapping.internalClient);
  request.insert_u32(clientPortFirst, mapping.internalPort);
  request.insert_u32(clientPortLast, mapping.internalPort);
  return exchange(request, lm::cmd::setObject);
}

lm::message removeRule(const PortMap& mapping) {
  return exchange(removal(mapping), lm::cmd::removeObject);
}

lm::message forgetRule(const PortMap& mapping) {
  return exchange(removal(mapping), lm::cmd::removeObject, lm::GivenUp::stands);
}

}  // namespace nat
