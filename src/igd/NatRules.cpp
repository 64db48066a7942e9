#include "igd/NatRules.h"

#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/NatRules.h"

namespace nat {

namespace {

namespace key = lm::nat::key;

// IP protocol numbers (IANA).
constexpr uint32_t ipTcp = 6;
constexpr uint32_t ipUdp = 17;

lm::message requestToTable() {
  lm::message request;
  request.insert_u32_array(lm::key::destination, lm::nat::path());
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
  lm::nat::write(request, lm::nat::Rule{.disabled = !mapping.enabled,
                                        .address = externalIP,
                                        .port = id.externalPort,
                                        .protocol = id.protocol == Id::tcp ? ipTcp : ipUdp,
                                        .client = mapping.internalClient,
                                        .clientPort = mapping.internalPort});
  return exchange(request, lm::cmd::addObject);
}

lm::message setRule(const PortMap& mapping) {
  lm::message request = requestToTable();
  request.insert_u32(lm::key::objectId, mapping.ruleId);
  request.insert_bool(lm::key::disabled, !mapping.enabled);
  request.insert_be32(key::clientFirst, mapping.internalClient);
  request.insert_be32(key::clientLast, mapping.internalClient);
  request.insert_u32(key::clientPortFirst, mapping.internalPort);
  request.insert_u32(key::clientPortLast, mapping.internalPort);
  return exchange(request, lm::cmd::setObject);
}

lm::message removeRule(const PortMap& mapping) {
  return exchange(removal(mapping), lm::cmd::removeObject);
}

lm::message forgetRule(const PortMap& mapping) {
  return exchange(removal(mapping), lm::cmd::removeObject, lm::GivenUp::stands);
}

}  // namespace nat
