#include "lumen/ctl/router/Ports.h"

#include <algorithm>
#include <string>

#include "lumen/ctl/status/StatusJson.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

Json portsAsJson(const std::vector<NatRule>& rules) { return Json::parse(portsJson(rules)); }

Json pinholesAsJson(const std::vector<Pinhole>& pinholes) {
  return Json::parse(pinholesJson(pinholes));
}

Table portsAsTable(std::vector<NatRule> rules) {
  sortByPort(rules);
  const bool leases =
      std::ranges::any_of(rules, [](const NatRule& rule) { return rule.left.has_value(); });
  const bool remotes =
      std::ranges::any_of(rules, [](const NatRule& rule) { return !rule.from.empty(); });
  std::vector<std::string> headings = {"PORT", "ON ADDRESS"};
  if (remotes) headings.emplace_back("FROM");
  headings.insert(headings.end(), {"TO", "STATE", "OPEN FOR"});
  if (leases) headings.emplace_back("ENDS IN");
  headings.insert(headings.end(), {">CONNECTIONS", ">SO FAR", "OPENED BY"});
  Table table(headings);
  for (const NatRule& rule : rules) {
    std::vector<Table::Cell> row = {std::to_string(rule.external.port) + "/" + rule.protocolName(),
                                    rule.external.address.text()};
    if (remotes) row.emplace_back(rule.from.empty() ? "anywhere" : rule.from);
    row.emplace_back(rule.client.text());
    row.emplace_back(wordFor(rule.state()));
    row.emplace_back(duration(rule.openFor));
    if (leases) row.emplace_back(rule.left ? duration(*rule.left) : std::string());
    row.emplace_back(rule.connections ? std::to_string(*rule.connections) : "?");
    row.emplace_back(rule.uses ? std::to_string(*rule.uses) : "?");
    row.emplace_back(rule.owner);
    table.add(row);
  }
  return table;
}

Table pinholesAsTable(std::vector<Pinhole> pinholes) {
  sortByHost(pinholes);
  const bool remotes =
      std::ranges::any_of(pinholes, [](const Pinhole& one) { return !one.from.empty(); });
  std::vector<std::string> headings = {"PORT", "OF IPV6 HOST"};
  if (remotes) headings.emplace_back("FROM");
  headings.insert(headings.end(), {"OPEN FOR", "ENDS IN", "OPENED BY"});
  Table table(headings);
  for (const Pinhole& one : pinholes) {
    std::vector<Table::Cell> row = {std::to_string(one.port) + "/" + one.protocolName(), one.host};
    if (remotes) row.emplace_back(one.from.empty() ? "anywhere" : one.from);
    row.insert(row.end(), {duration(one.openFor), duration(one.left), one.owner});
    table.add(row);
  }
  return table;
}

}  // namespace lumenctl
