#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/router/States.h"
#include "lumen/values/Ipv4.h"
#include "platform/message.h"
#include "platform/wire/Interfaces.h"

/// What the platform's services and the gateway list, as typed values. A field that a record lacks
/// has the value that stands here.
namespace lumenctl {

enum class Role : uint32_t {
  none = 0,
  external = lm::interfaces::roleExternal,
  internal = lm::interfaces::roleInternal,
};

/// "external", "internal"; empty for none.
[[nodiscard]] std::string roleName(Role role);

/// An interface of the router, or the kept name of one that is away.
struct Interface {
  explicit Interface(const lm::message& record);
  [[nodiscard]] LinkState state() const;
  /// Its name is kept, and there is no link of that name.
  [[nodiscard]] bool isAway() const { return index == 0; }

  uint32_t id = 0;
  std::string name;
  Role role = Role::none;     ///< none: its name is not kept
  uint32_t hardwareType = 0;  ///< 1: Ethernet
  uint32_t index = 0;         ///< the kernel's; 0: away
  bool disabled = false;      ///< taken down
  bool running = false;
};

/// What an interface has carried since it was made.
struct Counters {
  explicit Counters(const lm::message& record);

  uint64_t bytesReceived = 0;
  uint64_t bytesSent = 0;
  uint64_t packetsReceived = 0;
  uint64_t packetsSent = 0;
};

struct Address {
  explicit Address(const lm::message& record);

  uint32_t id = 0;
  uint32_t interfaceId = 0;
  lumen::Ipv4Address address;
  bool disabled = false;  ///< its interface is not running
};

[[nodiscard]] std::vector<lumen::Ipv4Address> addressesOf(uint32_t interfaceId,
                                                          const std::vector<Address>& addresses);

/// An open port.
struct NatRule {
  explicit NatRule(const lm::message& record);
  /// "tcp", "udp", or the number of another protocol.
  [[nodiscard]] std::string protocolName() const;
  [[nodiscard]] PortState state() const;

  uint32_t id = 0;
  lumen::Endpoint external;
  uint32_t protocol = 0;   ///< IP protocol number
  lumen::Endpoint client;  ///< where its packets go
  bool disabled = false;
  bool closed = false;
  bool stale = false;
  std::string owner;  ///< name of the service that made it
  std::chrono::seconds openFor{0};
  std::string from;  ///< the only networks from where packets pass; empty: anywhere
  std::optional<std::chrono::seconds> left;  ///< until its lease ends; none: permanent
  std::optional<uint64_t> connections;       ///< open now; none: not known
  std::optional<uint64_t> uses;              ///< connections since it was opened; none: not known
};

/// A port of an IPv6 host that the Internet may reach.
struct Pinhole {
  explicit Pinhole(const lm::message& record);
  /// "tcp" or "udp".
  [[nodiscard]] std::string protocolName() const;

  uint32_t id = 0;
  std::string host;  ///< its address
  uint32_t protocol = 0;
  uint32_t port = 0;
  std::string owner;  ///< name of the service that opened it
  std::chrono::seconds openFor{0};
  std::chrono::seconds left{0};  ///< until its lease ends
  std::string from;              ///< the only networks from where packets pass; empty: anywhere
};

/// Whether pinholes can be opened.
struct PinholeSettings {
  PinholeSettings() = default;
  explicit PinholeSettings(const lm::message& record);

  std::string problem;           ///< why none can be opened at all; empty: they can
  bool remotesPossible = false;  ///< they can be opened to some remote networks alone
};

/// Which ports programs may open. The texts are as in the policy file.
struct NatPolicy {
  explicit NatPolicy(const lm::message& record);

  std::string externalPorts;
  std::string internalClients;
  std::string internalPorts;
  std::string routerPorts;
  uint32_t maxRules = 0;
  uint32_t maxRulesPerClient = 0;
  bool remotesPossible = false;  ///< ports can be opened to some remote networks alone
};

/// What is to be changed of it; the rest stays.
struct NatPolicyChange {
  bool reset = false;   ///< first back to what the policy file says
  bool reload = false;  ///< first reads that file again
  std::optional<std::string> externalPorts;
  std::optional<std::string> internalClients;
  std::optional<std::string> internalPorts;
  std::optional<std::string> routerPorts;
  std::optional<uint32_t> maxRules;
  std::optional<uint32_t> maxRulesPerClient;
};

/// A change of the router that can be undone.
struct Change {
  explicit Change(const lm::message& record);

  uint32_t id = 0;  ///< higher than those of earlier changes
  std::chrono::sys_seconds time;
  uint32_t service = 0;  ///< the number of the service that made it, and of its handler
  uint32_t handler = 0;
  std::string text;
  uint32_t undoCommand = 0;
  lm::message undo;  ///< the request that undoes it, without the fields of its transport
};

/// A program that the platform starts.
struct Service {
  explicit Service(const lm::message& record);

  uint32_t number = 0;
  std::string name;
  ServiceState state = ServiceState::unknown;
  uint32_t pid = 0;                        ///< 0: no process
  uint32_t restarts = 0;                   ///< after crashes
  std::chrono::milliseconds nextStart{0};  ///< from now; 0: none planned
  std::string program;                     ///< the file name of its executable
  uint64_t residentMemory = 0;             ///< bytes; 0: not known, or no process
};

/// An interface that the gateway is configured to use.
struct GatewayObject {
  GatewayObject() = default;
  explicit GatewayObject(const lm::message& record);
  /// Takes over the fields that `record` has.
  void apply(const lm::message& record);
  [[nodiscard]] bool operator==(const GatewayObject&) const = default;

  uint32_t id = 0;
  bool disabled = false;
  uint32_t interfaceId = 0;
  Role role = Role::none;
};

/// The gateway's own settings.
struct Settings {
  Settings() = default;
  explicit Settings(const lm::message& record) { apply(record); }
  /// Takes over the fields that `record` has.
  void apply(const lm::message& record);
  [[nodiscard]] bool operator==(const Settings&) const = default;

  bool enabled = false;
  bool allowDisableExternal = true;  ///< control points may take the external interface down and up
  bool showDummyRule = true;         ///< an inactive entry stands in the list of open ports
};

/// The status page: its settings, and what it serves.
struct WebPage {
  explicit WebPage(const lm::message& record);
  /// Its addresses for a browser.
  [[nodiscard]] std::vector<std::string> urls() const;

  bool enabled = false;
  uint32_t port = 0;
  std::string names;    ///< with blanks between them
  std::string served;   ///< the same: "192.168.88.1:80"
  std::string problem;  ///< why it is not served everywhere; empty: it is
};

/// What is to be changed of it; the rest stays.
struct WebPageChange {
  std::optional<bool> enabled;
  std::optional<uint32_t> port;
  std::optional<std::string> names;
};

/// What opens ports for NAT-PMP and PCP: its settings, and what it serves.
struct PcpServer {
  explicit PcpServer(const lm::message& record);

  bool enabled = false;
  std::string agents;     ///< addresses of hosts that may ask for others, with blanks between them
  std::string served;     ///< interfaces, the same
  std::string problem;    ///< why it is not served everywhere; empty: it is
  uint32_t mappings = 0;  ///< open ports
  uint32_t pinholes = 0;  ///< of IPv6 hosts, beside those
};

/// What is to be changed of it; the rest stays.
struct PcpServerChange {
  std::optional<bool> enabled;
  std::optional<std::string> agents;
};

/// What the gateway is set to do.
struct GatewayConfiguration {
  Settings settings;
  std::vector<GatewayObject> objects;
};

}  // namespace lumenctl
