#include "lumen/ctl/router/Ports.h"

#include <algorithm>
#include <tuple>

#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

void sortByPort(std::vector<NatRule>& rules) {
  std::sort(rules.begin(), rules.end(), [](const NatRule& a, const NatRule& b) {
    return std::tuple(a.externalPort, a.protocol, a.id) <
           std::tuple(b.externalPort, b.protocol, b.id);
  });
}

}  // namespace

Json portsAsJson(std::vector<NatRule> rules) {
  sortByPort(rules);
  Json result = Json::array();
  for (const NatRule& rule : rules) {
    result.push_back({{"port", rule.externalPort},
                      {"protocol", rule.protocolName()},
                      {"address", dotted(rule.externalAddress)},
                      {"client", dotted(rule.internalClient)},
                      {"client_port", rule.internalPort},
                      {"state", wordFor(rule.state()).text},
                      {"stale", rule.stale},
                      {"owner", rule.owner},
                      {"seconds", rule.openFor.count()},
                      {"connections", rule.connections ? Json(*rule.connections) : Json()},
                      {"connections_so_far", rule.uses ? Json(*rule.uses) : Json()}});
  }
  return result;
}

Table portsAsTable(std::vector<NatRule> rules) {
  sortByPort(rules);
  Table table(
      {"PORT", "ON ADDRESS", "TO", "STATE", "OPEN FOR", ">CONNECTIONS", ">SO FAR", "OPENED BY"});
  for (const NatRule& rule : rules) {
    table.add({std::to_string(rule.externalPort) + "/" + rule.protocolName(),
               dotted(rule.externalAddress),
               dotted(rule.internalClient) + ":" + std::to_string(rule.internalPort),
               wordFor(rule.state()), duration(rule.openFor),
               rule.connections ? std::to_string(*rule.connections) : "?",
               rule.uses ? std::to_string(*rule.uses) : "?", rule.owner});
  }
  return table;
}

}  // namespace lumenctl
