#include <cstdint>
#include <map>
#include <utility>

#include "lumen/web/Markup.h"
#include "lumen/web/Refusals.h"
#include "lumen/web/Render.h"

namespace lumen::web {

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

/// The text format, https://prometheus.io/docs/instrumenting/exposition_formats/.
class Exposition {
 public:
  void begin(const char* name, const char* type, const char* help) {
    name_ = name;
    text_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void add(const Labels& labels, uint64_t value) {
    text_ += name_;
    const char* separator = "{";
    for (const auto& [label, content] : labels) {
      text_ += std::string(separator) + label + "=\"" + labelValue(content) + "\"";
      separator = ",";
    }
    text_ += (labels.empty() ? " " : "} ") + std::to_string(value) + "\n";
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  const char* name_ = "";
  std::string text_;
};

/// How many, by protocol and service.
using ByOwner = std::map<std::pair<std::string, std::string>, uint64_t>;

void addByOwner(Exposition& out, const char* name, const char* help, const ByOwner& numbers) {
  out.begin(name, "gauge", help);
  for (const auto& [key, number] : numbers) {
    out.add({{"protocol", key.first}, {"service", key.second}}, number);
  }
}

void addPorts(Exposition& out, const Picture& picture) {
  ByOwner open;
  ByOwner leased;
  uint64_t connections = 0;
  for (const auto& [id, rule] : picture.rules) {
    connections += rule.connections.value_or(0);
    if (rule.state() != lumenctl::PortState::open) continue;
    ++open[{rule.protocolName(), rule.owner}];
    if (rule.left) ++leased[{rule.protocolName(), rule.owner}];
  }
  ByOwner pinholes;
  for (const auto& [id, pinhole] : picture.pinholes) {
    ++pinholes[{pinhole.protocolName(), pinhole.owner}];
  }
  addByOwner(out, "palinode_ports_open", "Open ports, by protocol and service.", open);
  addByOwner(out, "palinode_ports_leased", "Those of the open ports that end with a lease.",
             leased);
  addByOwner(out, "palinode_pinholes_open", "Open ports of IPv6 hosts, by protocol and service.",
             pinholes);
  out.begin("palinode_port_connections", "gauge", "Connections through open ports.");
  out.add({}, connections);
  out.begin("palinode_port_refusals_total", "counter",
            "Ports that a program asked for and was refused, by the kind of the reason.");
  for (const char* kind : refusalKinds) {
    const auto found = picture.refusals.find(kind);
    out.add({{"reason", kind}}, found == picture.refusals.end() ? 0 : found->second);
  }
}

void addTraffic(Exposition& out, const Picture& picture) {
  struct Kind {
    const char* name;
    const char* help;
    uint64_t lumenctl::Counters::*value;
  };
  constexpr Kind kinds[] = {
      {"palinode_interface_receive_bytes_total", "Bytes that an external interface received.",
       &lumenctl::Counters::bytesReceived},
      {"palinode_interface_transmit_bytes_total", "Bytes that an external interface sent.",
       &lumenctl::Counters::bytesSent},
      {"palinode_interface_receive_packets_total", "Packets that an external interface received.",
       &lumenctl::Counters::packetsReceived},
      {"palinode_interface_transmit_packets_total", "Packets that an external interface sent.",
       &lumenctl::Counters::packetsSent}};
  for (const Kind& kind : kinds) {
    out.begin(kind.name, "counter", kind.help);
    for (const auto& [name, counters] : picture.counters) {
      out.add({{"interface", name}}, counters.*kind.value);
    }
  }
  out.begin("palinode_interface_up", "gauge", "Whether the interface has a link.");
  for (const lumenctl::UsedInterface& used : picture.interfaces) {
    out.add({{"interface", used.interface.name}, {"role", roleName(used.use.role)}},
            used.interface.running ? 1 : 0);
  }
}

void addPrograms(Exposition& out, const Picture& picture) {
  out.begin("palinode_service_up", "gauge", "Whether the service runs.");
  for (const lumenctl::Service& service : picture.services) {
    out.add({{"service", service.name}}, service.state == lumenctl::ServiceState::running ? 1 : 0);
  }
  out.begin("palinode_service_restarts_total", "counter",
            "Times that the service was started again after a crash.");
  for (const lumenctl::Service& service : picture.services) {
    out.add({{"service", service.name}}, service.restarts);
  }
  out.begin("palinode_resident_memory_bytes", "gauge",
            "Physical memory that a program uses, with the pages that it shares.");
  std::map<std::string, uint64_t> memory = {{"lumend", picture.platformMemory}};
  for (const lumenctl::Service& service : picture.services) {
    memory[service.program] += service.residentMemory;
  }
  for (const auto& [program, bytes] : memory) {
    if (bytes != 0) out.add({{"program", program}}, bytes);
  }
}

}  // namespace

std::string metricsOf(const Picture& picture, uint32_t uptime, uint64_t listeners) {
  Exposition out;
  out.begin("palinode_build_info", "gauge", "1, with the version of the status page's program.");
  out.add({{"version", PALINODE_VERSION}}, 1);
  out.begin("palinode_gateway_up", "gauge", "Whether the gateway is switched on and answers.");
  out.add({}, picture.gateway == lumenctl::GatewayState::on ? 1 : 0);
  out.begin("palinode_router_uptime_seconds", "gauge", "Time since the router was started.");
  out.add({}, uptime);
  addPorts(out, picture);
  addTraffic(out, picture);
  addPrograms(out, picture);
  out.begin("palinode_web_listeners", "gauge", "Open streams of events.");
  out.add({}, listeners);
  return out.text();
}

}  // namespace lumen::web
