#include <gtest/gtest.h>

#include <cstdint>

#include "lumen/web/Render.h"
#include "platform/wire/Broker.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pinholes.h"
#include "support/ManualClock.h"

namespace lumen::web {
namespace {

using namespace std::chrono_literals;

constexpr Ipv4Address lanHost = {192, 168, 88, 10};

lumenctl::Interface interface(uint32_t id, const std::string& name, uint32_t role, bool running) {
  lm::interfaces::Record record;
  record.id = record.index = id;
  record.name = name;
  record.running = running;
  record.role = role;
  lm::message m;
  lm::interfaces::write(m, record);
  return lumenctl::Interface(m);
}

lumenctl::NatRule rule(uint32_t id, uint32_t port, const std::string& owner = "upnp") {
  lm::message m;
  lm::nat::write(m, lm::nat::Record{.rule = {.address = Ipv4Address(45, 45, 45, 2).bytes(),
                                             .port = port,
                                             .protocol = 6,
                                             .client = lanHost.bytes(),
                                             .clientPort = 80},
                                    .id = id,
                                    .owner = owner,
                                    .seconds = 185,
                                    .connections = 2});
  return lumenctl::NatRule(m);
}

/// One whose lease ends, and that only some remote networks reach.
lumenctl::NatRule leasedRule(uint32_t id, uint32_t port) {
  lm::message m;
  lm::nat::write(m,
                 lm::nat::Record{.rule = {.port = port,
                                          .protocol = 17,
                                          .client = lanHost.bytes(),
                                          .clientPort = port,
                                          .lease = 5025,
                                          .remotes = {{Ipv4Address(198, 51, 100, 0).bytes(), 24}}},
                                 .id = id,
                                 .owner = "pcp"});
  return lumenctl::NatRule(m);
}

lumenctl::Pinhole pinhole(uint32_t id, const std::string& host, uint32_t port,
                          const std::string& remotes = "") {
  lm::message m;
  lm::pinholes::write(m, lm::pinholes::Record{.pinhole = {.address = host,
                                                          .protocol = 6,
                                                          .port = port,
                                                          .lease = 3600,
                                                          .remotes = remotes},
                                              .id = id,
                                              .owner = "pcp",
                                              .seconds = 61});
  return lumenctl::Pinhole(m);
}

lumenctl::Service service(const std::string& name, const std::string& program, uint64_t memory) {
  lm::message m;
  m.insert_string(lm::broker::listed::name, name);
  m.insert_string(lm::broker::listed::program, program);
  m.insert_u64(lm::broker::listed::residentMemory, memory);
  return lumenctl::Service(m);
}

/// A router at work, with one open port.
struct RenderTest : testing::Test {
  RenderTest() {
    picture.gateway = lumenctl::GatewayState::on;
    picture.since = Milliseconds(1709251198s);
    lumenctl::GatewayObject external;
    external.role = lumenctl::Role::external;
    picture.interfaces.push_back(
        {interface(1, "wan0", 1, true), external, {Ipv4Address(45, 45, 45, 2)}});
    picture.rules.insert_or_assign(7, rule(7, 8080));
  }
  [[nodiscard]] std::string page() const {
    return pageOf(
        "{{state}}|{{ports-columns}}|{{ports}}|{{pinholes-columns}}{{pinholes-hidden}}|{{pinholes}}"
        "|"
        "{{lately}}",
        picture, names);
  }
  [[nodiscard]] bool has(const std::string& text) const {
    return page().find(text) != std::string::npos;
  }

  lm::test::ManualClock clock;
  HostNames names{clock};
  Picture picture;
};

// Promise: First in sight, the status page says whether the gateway works, under which
// address and since when; if it does not, what is wrong and what to do, in the words of `upnp
// check`.
TEST_F(RenderTest, SaysWhetherTheGatewayWorks) {
  EXPECT_TRUE(page().starts_with(
      "<p class=\"state good\">The gateway works under the external address 45.45.45.2.</p>"
      "<p>Since <time datetime=\"2024-02-29T23:59:58Z\">"))
      << page();
  picture.findings.push_back({"x", "It is <broken>.", "No port.", "lumenctl \"x\""});
  EXPECT_TRUE(has("<p class=\"state warning\">"));
  EXPECT_TRUE(
      has("<p class=\"what\">It is &lt;broken&gt;.</p><p>No port.</p><p>Fix it: <code>"
          "lumenctl &quot;x&quot;</code></p>"));
  picture.interfaces[0].interface = interface(1, "wan0", 1, false);
  EXPECT_TRUE(has("<p class=\"state bad\">The gateway is on, but it has no external address.</p>"));
  picture.gateway = lumenctl::GatewayState::off;
  EXPECT_TRUE(has("<p class=\"state warning\">The gateway is switched off.</p>"));
}

TEST_F(RenderTest, ShowsNamesOfHostsAsText) {
  picture.rules.insert_or_assign(8, rule(8, 9, "<img src=x onerror=alert(1)>"));
  picture.happenings.push_back({Milliseconds(0s), "<b>opened</b>"});
  EXPECT_TRUE(has("<td>&lt;img src=x onerror=alert(1)&gt;</td>"));
  EXPECT_TRUE(has("&lt;b&gt;opened&lt;/b&gt;"));
  EXPECT_FALSE(has("<img"));
  EXPECT_TRUE(has(
      "<th scope=\"row\" class=\"number\">8080</th><td>tcp</td>"
      "<td class=\"from\">anywhere</td><td>192.168.88.10</td>"
      "<td class=\"good\">open</td><td class=\"time\">3 min 5 s</td><td class=\"time lease\"></td>"
      "<td class=\"number\">2</td>"
      "<td class=\"number\">?</td><td>upnp</td>"));
}

// Promise: The status page shows which service opened a port, when its lease ends, and from where
// alone it is reached; a column that would be empty is hidden.
TEST_F(RenderTest, ShowsTheLeaseAndTheRemoteNetworksOfAPort) {
  EXPECT_TRUE(has("| no-from no-lease|"));
  picture.rules.insert_or_assign(8, leasedRule(8, 5060));
  EXPECT_TRUE(has("</p>||<tr>")) << page();
  EXPECT_TRUE(has("<td class=\"from\">198.51.100.0/24</td>"));
  EXPECT_TRUE(has("<td class=\"time lease\">1 h 23 min</td>"));
  EXPECT_TRUE(has("<td>pcp</td>"));
  const std::string json = portJson(leasedRule(8, 5060), names);
  EXPECT_NE(json.find("\"from\":\"198.51.100.0/24\",\"left\":5025}"), std::string::npos) << json;
}

// Promise: The status page shows the open ports of IPv6 hosts, in the order of the hosts, with the
// service that opened each, the time left of its lease, and from where alone it is reached.
TEST_F(RenderTest, ShowsThePortsOfIpv6Hosts) {
  EXPECT_TRUE(has("| no-from hidden||"));
  picture.pinholes.insert_or_assign(1, pinhole(1, "2001:db8::11", 443));
  picture.pinholes.insert_or_assign(2, pinhole(2, "2001:db8::10", 8080));
  EXPECT_TRUE(
      has("| no-from|<tr><th scope=\"row\" class=\"number\">8080</th><td>tcp</td>"
          "<td class=\"from\">anywhere</td><td>2001:db8::10</td>"
          "<td class=\"time\">1 min 1 s</td><td class=\"time\">1 h</td><td>pcp</td></tr>"
          "<tr><th scope=\"row\" class=\"number\">443</th>"))
      << page();
  EXPECT_EQ(pinholeJson(pinhole(2, "2001:db8::10", 8080)),
            "{\"id\":2,\"port\":8080,\"protocol\":\"tcp\",\"host\":\"2001:db8::10\","
            "\"seconds\":61,\"left\":3600,\"owner\":\"pcp\",\"from\":\"\"}");
  picture.pinholes.insert_or_assign(3, pinhole(3, "2001:db8::12", 25, "2001:db8:b::/48"));
  EXPECT_TRUE(has("||<tr>")) << page();
  EXPECT_TRUE(has("<td class=\"from\">2001:db8:b::/48</td>"));
}

TEST_F(RenderTest, SaysThatNoPortIsOpenWhenThereIsNoneOfAnyKind) {
  const auto isHidden = [this] {
    return pageOf("{{no-port-hidden}}", picture, names) == " hidden";
  };
  picture.rules.clear();
  EXPECT_FALSE(isHidden());
  picture.pinholes.insert_or_assign(1, pinhole(1, "2001:db8::10", 443));
  EXPECT_TRUE(isHidden());
}

TEST_F(RenderTest, PutsAnEventOnOneLine) {
  EXPECT_EQ(event("ports", "[" + portJson(rule(7, 8080, "a\nb"), names) + "]"),
            "event: ports\ndata: [{\"id\":7,\"port\":8080,\"protocol\":\"tcp\",\"host\":"
            "\"192.168.88.10\",\"state\":\"open\",\"colour\":\"good\",\"seconds\":185,"
            "\"connections\":2,\"uses\":null,\"owner\":\"a\\u000ab\",\"from\":\"\","
            "\"left\":null}]\n\n");
}

// Promise: The metrics have open ports, those with a lease and those of IPv6 hosts by protocol and
// service, refusals by reason, bytes and packets of external interfaces, connections, uptime,
// version and resident memory of each program.
TEST_F(RenderTest, CountsInThePrometheusTextFormat) {
  lm::interfaces::Record carried;
  carried.counters = lm::interfaces::Counters{.bytesReceived = 18446744073709551615U,
                                              .bytesSent = 2,
                                              .packetsReceived = 3,
                                              .packetsSent = 4};
  lm::message counted;
  lm::interfaces::write(counted, carried);
  picture.counters.emplace("wan0", lumenctl::Counters(counted));
  picture.refusals["in_use"] = 5;
  picture.platformMemory = 4'194'304;
  picture.services = {service("upnp", "palinode-igd", 3'145'728),
                      service("resolver", "lumen-resolver", 0), service("a", "shared", 1),
                      service("b", "shared", 2)};
  picture.rules.insert_or_assign(8, leasedRule(8, 5060));
  picture.pinholes.insert_or_assign(1, pinhole(1, "2001:db8::11", 443));
  picture.pinholes.insert_or_assign(2, pinhole(2, "2001:db8::10", 443));
  const std::string text = metricsOf(picture, 99, 3);
  for (const char* line :
       {"# TYPE palinode_ports_open gauge\npalinode_ports_open{protocol=\"tcp\",service=\"upnp\"} "
        "1\npalinode_ports_open{protocol=\"udp\",service=\"pcp\"} 1\n",
        "# TYPE palinode_ports_leased "
        "gauge\npalinode_ports_leased{protocol=\"udp\",service=\"pcp\"} "
        "1\n#",
        "palinode_pinholes_open{protocol=\"tcp\",service=\"pcp\"} 2\n",
        "palinode_port_connections 2\n", "palinode_port_refusals_total{reason=\"in_use\"} 5\n",
        "palinode_port_refusals_total{reason=\"policy\"} 0\n",
        "palinode_interface_receive_bytes_total{interface=\"wan0\"} 18446744073709551615\n",
        "palinode_interface_transmit_packets_total{interface=\"wan0\"} 4\n",
        "palinode_interface_up{interface=\"wan0\",role=\"external\"} 1\n",
        "palinode_gateway_up 1\n", "palinode_router_uptime_seconds 99\n",
        "palinode_web_listeners 3\n",
        "# TYPE palinode_resident_memory_bytes gauge\n"
        "palinode_resident_memory_bytes{program=\"lumend\"} 4194304\n"
        "palinode_resident_memory_bytes{program=\"palinode-igd\"} 3145728\n"
        "palinode_resident_memory_bytes{program=\"shared\"} 3\n",
        "palinode_build_info{version=\"" PALINODE_VERSION "\"} 1\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
}

}  // namespace
}  // namespace lumen::web
