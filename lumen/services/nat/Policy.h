#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/nat/Rule.h"
#include "lumen/values/Ipv4.h"
#include "lumen/values/Result.h"

namespace lumen {

/// Ports, written "1024-65535" or "80, 443, 6000-6999".
class PortRanges {
 public:
  struct Range {
    uint16_t first = 0;
    uint16_t last = 0;
  };

  /// Fails when the text is anything else.
  [[nodiscard]] static Result<PortRanges> parse(std::string_view text);

  [[nodiscard]] bool contains(uint16_t port) const;
  /// "none" for no ports, which is never parsed.
  [[nodiscard]] std::string text() const;

  /// As they were written: they may overlap.
  [[nodiscard]] const std::vector<Range>& ranges() const { return ranges_; }

 private:
  std::vector<Range> ranges_;  // as they were written
};

/// Internal clients: a list of networks and addresses ("192.168.88.0/24, 10.1.2.3"), names of
/// interfaces (hosts in a network of that interface) and the words "internal" (hosts in a network
/// of an internal interface) and "connected" (hosts in a network of any interface).
class ClientNetworks {
 public:
  /// Fails when the text is anything else.
  [[nodiscard]] static Result<ClientNetworks> parse(std::string_view text);

  /// `interface`: the one whose network the host lies in, none when it is not directly connected.
  [[nodiscard]] bool contains(Ipv4Address host,
                              const std::optional<KnownInterfaces::Known>& interface) const;
  /// Every host that lies in a network of this interface, which is an internal one.
  [[nodiscard]] bool containsAllOf(const std::string& interface) const;
  [[nodiscard]] bool includesInternal() const { return internal_; }
  [[nodiscard]] bool includesConnected() const { return connected_; }
  [[nodiscard]] const std::vector<std::string>& interfaces() const { return names_; }
  [[nodiscard]] const std::vector<Ipv4Network>& networks() const { return networks_; }
  [[nodiscard]] std::string text() const;

 private:
  bool internal_ = false;
  bool connected_ = false;
  std::vector<std::string> names_;     // as they were written
  std::vector<Ipv4Network> networks_;  // as they were written
};

/// Which ports may be opened, to whom, and how many.
struct Policy {
  Policy();

  PortRanges externalPorts;        ///< by default 1024-65535
  ClientNetworks internalClients;  ///< by default internal
  /// Of clients; by default not those by which machines are administered.
  PortRanges internalPorts;
  /// External ports that may be opened although a program of this router listens there. By default
  /// none.
  PortRanges routerPorts;
  uint32_t maxRules = 4096;
  uint32_t maxRulesPerClient = 128;

  /// A quarter of all places is kept for clients that have fewer rules than this: a few clients
  /// cannot take the places of all others.
  static constexpr uint32_t fewRules = 8;
  [[nodiscard]] uint32_t keptPlaces() const { return maxRules / 4; }

  /// The values by the names that they have in the policy file. After a failure nothing has
  /// changed.
  [[nodiscard]] Result<void> set(std::string_view name, std::string_view value);

  /// Whether the rule may be opened. A client is never the router itself, nor in a network on the
  /// side of the external address.
  [[nodiscard]] Result<void> allows(const RuleKey& key, const Endpoint& client,
                                    const LocalNetworks& networks,
                                    const KnownInterfaces& interfaces) const;
  // The two halves of that.
  [[nodiscard]] Result<void> allowsPort(uint16_t externalPort) const;
  [[nodiscard]] Result<void> allowsClient(const RuleKey& key, const Endpoint& client,
                                          const LocalNetworks& networks,
                                          const KnownInterfaces& interfaces) const;
};

}  // namespace lumen
