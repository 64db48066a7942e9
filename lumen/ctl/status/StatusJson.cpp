#include "lumen/ctl/status/StatusJson.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "lumen/ctl/text/JsonText.h"

namespace lumenctl {

namespace {

std::string numberOrNull(const std::optional<uint64_t>& number) {
  return number ? jsonText(*number) : "null";
}

std::string portJson(const NatRule& rule) {
  return JsonObject()
      .add("port", rule.external.port)
      .add("protocol", rule.protocolName())
      .add("address", rule.external.address.text())
      .add("client", rule.client.address.text())
      .add("client_port", rule.client.port)
      .add("state", wordFor(rule.state()).text)
      .add("stale", rule.stale)
      .add("owner", rule.owner)
      .add("seconds", rule.openFor.count())
      .add("from", rule.from)
      .addJson("seconds_left", rule.left ? jsonText(rule.left->count()) : "null")
      .addJson("connections", numberOrNull(rule.connections))
      .addJson("connections_so_far", numberOrNull(rule.uses))
      .text();
}

std::string interfaceJson(const UsedInterface& used) {
  JsonList addresses;
  for (const lumen::Ipv4Address& address : used.addresses) {
    addresses.addJson(jsonText(address.text()));
  }
  return JsonObject()
      .add("name", used.interface.name)
      .add("role", roleName(used.use.role))
      .add("used", !used.use.disabled)
      .add("state", wordFor(used.interface.state()).text)
      .addJson("addresses", addresses.text())
      .text();
}

/// Seconds since 1970, with their thousandths.
std::string secondsJson(PortEvent::Time time) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(time);
  const std::string thousandths = std::to_string(1000 + (time - whole).count());
  return std::to_string(whole.time_since_epoch().count()) + "." + thousandths.substr(1);
}

std::string refusalJson(const PortEvent& refusal) {
  return JsonObject()
      .addJson("time", secondsJson(refusal.time))
      .add("port", refusal.external.port)
      .add("protocol", refusal.protocolName())
      .add("address", refusal.external.address.text())
      .add("client", refusal.client.address.text())
      .add("client_port", refusal.client.port)
      .add("reason", refusal.reason)
      .text();
}

}  // namespace

void sortByPort(std::vector<NatRule>& rules) {
  std::sort(rules.begin(), rules.end(), [](const NatRule& a, const NatRule& b) {
    return std::tuple(a.external.port, a.protocol, a.id) <
           std::tuple(b.external.port, b.protocol, b.id);
  });
}

std::string portsJson(std::vector<NatRule> rules) {
  sortByPort(rules);
  JsonList ports;
  for (const NatRule& rule : rules) ports.addJson(portJson(rule));
  return ports.text();
}

void sortByHost(std::vector<Pinhole>& pinholes) {
  std::sort(pinholes.begin(), pinholes.end(), [](const Pinhole& a, const Pinhole& b) {
    return std::tie(a.host, a.port, a.protocol) < std::tie(b.host, b.port, b.protocol);
  });
}

std::string pinholesJson(std::vector<Pinhole> pinholes) {
  sortByHost(pinholes);
  JsonList all;
  for (const Pinhole& one : pinholes) {
    all.addJson(JsonObject()
                    .add("port", one.port)
                    .add("protocol", one.protocolName())
                    .add("host", one.host)
                    .add("owner", one.owner)
                    .add("seconds", one.openFor.count())
                    .add("from", one.from)
                    .add("seconds_left", one.left.count())
                    .text());
  }
  return all.text();
}

std::string statusJson(GatewayState gateway, const std::vector<UsedInterface>& interfaces,
                       const std::vector<NatRule>& rules, const std::vector<PortEvent>& refusals,
                       const std::vector<Pinhole>& pinholes) {
  JsonList uses;
  for (const UsedInterface& used : interfaces) uses.addJson(interfaceJson(used));
  JsonList refused;
  for (const PortEvent& refusal : refusals) refused.addJson(refusalJson(refusal));
  return JsonObject()
      .add("version", statusVersion)
      .add("gateway", wordFor(gateway).text)
      .addJson("interfaces", uses.text())
      .addJson("ports", portsJson(rules))
      .addJson("refused_ports", refused.text())
      .addJson("pinholes", pinholesJson(pinholes))
      .text();
}

}  // namespace lumenctl
