#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/machine/PacketFilter.h"
#include "lumen/ctl/machine/RouteTable.h"
#include "lumen/ctl/router/Snapshot.h"
#include "lumen/values/Result.h"

namespace lumenctl {

/// The gateway's service file, which tells why lumend knows no gateway, or refuses its packets.
struct GatewayFile {
  enum class State {
    missing,
    wrong,        ///< lumend rejects it, or it cannot be read
    userMissing,  ///< it is right, but the user that it names was never created
    fenced,       ///< it does not let the gateway send to internal hosts
    right,        ///< lumend takes it when it starts
  };

  std::string path;
  State state = State::missing;
  std::string error;       ///< of a wrong one
  bool packaged = false;   ///< it came with Debian's package
  bool opensPorts = true;  ///< it lets the gateway open ports, if lumend takes it
};

/// An interface that has a role.
struct CheckedInterface {
  std::string name;
  Role role = Role::none;
  LinkState state = LinkState::running;
  std::vector<lumen::Ipv4Address> addresses;
  std::vector<ConnectedNetwork> networks;
  bool bridge = false;
  bool multicast = true;  ///< the link may carry it
  /// The ports on which the gateway should listen there and does not: "2828/tcp".
  std::vector<std::string> silentPorts;
  std::optional<bool> forwards;  ///< packets that arrive there; none: not known
};

/// Another program at a port that the gateway needs.
struct PortUser {
  uint32_t port = 0;
  uint32_t protocol = 0;  ///< IP protocol number: TCP or UDP
  uint32_t process = 0;   ///< 0: not visible
  std::string program;    ///< empty: not visible

  [[nodiscard]] bool operator==(const PortUser&) const = default;
};

/// What opens ports for NAT-PMP and PCP, while it is not switched off.
struct PcpReport {
  ServiceState state = ServiceState::unknown;
  std::optional<PcpServer> server;  ///< none: it does not answer
  PinholeSettings pinholes;
};

/// What `upnp check` looks at, as it was read. Parts that could not be read are as they stand here.
struct Observation {
  lumen::Result<void> reached;   ///< lumend takes connections
  std::string logHint;           ///< where lumend's log is; empty: lumend can be reached
  bool systemd = false;          ///< systemd is what starts lumend
  lumen::Result<void> answered;  ///< lumend refused nothing
  // What follows up to the policy is empty when lumend did not answer.
  GatewayReport gateway;
  GatewayFile gatewayFile;
  std::vector<CheckedInterface> interfaces;
  std::vector<NatRule> rules;
  std::optional<WebPage> webPage;  ///< none: it is switched off
  std::optional<NatPolicy> policy;
  std::optional<PcpReport> pcp;  ///< none: it is switched off, or lumend knows no such service

  std::string kernel;            ///< its release, "6.1.0-18-amd64"
  std::optional<bool> forwards;  ///< the sysctl net.ipv4.ip_forward
  bool defaultRoute = false;
  bool bridgedIsFiltered = false;  ///< the sysctl net.bridge.bridge-nf-call-iptables
  std::optional<std::vector<ForwardChain>> chains;  ///< none: they cannot be read
  std::vector<PortUser> portUsers;
};

}  // namespace lumenctl
