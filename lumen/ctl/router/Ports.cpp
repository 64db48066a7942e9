#include "lumen/ctl/router/Ports.h"

#include "lumen/ctl/status/StatusJson.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

Json portsAsJson(const std::vector<NatRule>& rules) { return Json::parse(portsJson(rules)); }

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
