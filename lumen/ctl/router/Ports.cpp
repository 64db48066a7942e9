#include "lumen/ctl/router/Ports.h"

#include <algorithm>
#include <tuple>

#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

void sortByPort(std::vector<NatRule>& rules) {
  std::sort(rules.begin(), rules.end(), [](const NatRule& a, const NatRule& b) {
    return std::tuple(a.external.port, a.protocol, a.id) <
           std::tuple(b.external.port, b.protocol, b.id);
  });
}

}  // namespace

Json portsAsJson(std::vector<NatRule> rules) {
  sortByPort(rules);
  Json result = Json::array();
  for (const NatRule& rule : rules) {
    result.push_back({{"port", rule.external.port},
                      {"protocol", rule.protocolName()},
                      {"address", rule.external.address.text()},
                      {"client", rule.client.address.text()},
                      {"client_port", rule.client.port},
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
    table.add({std::to_string(rule.external.port) + "/" + rule.protocolName(),
               rule.external.address.text(), rule.client.text(), wordFor(rule.state()),
               duration(rule.openFor), rule.connections ? std::to_string(*rule.connections) : "?",
               rule.uses ? std::to_string(*rule.uses) : "?", rule.owner});
  }
  return table;
}

}  // namespace lumenctl
