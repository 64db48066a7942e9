#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/nat/Rule.h"
#include "lumen/values/Ipv4.h"

namespace lumen {

/// External ports, written "1024-65535" or "80, 443, 6000-6999".
class PortRanges {
 public:
  /// None when the text is anything else; `reason` then says what is wrong.
  [[nodiscard]] static std::optional<PortRanges> parse(std::string_view text, std::string& reason);

  [[nodiscard]] bool contains(uint16_t port) const;
  [[nodiscard]] std::string text() const;

 private:
  struct Range {
    uint16_t first = 0;
    uint16_t last = 0;
  };
  std::vector<Range> ranges_;  // as they were written
};

/// Internal clients, written "connected" (hosts in a network of one of the router's interfaces) or
/// "192.168.88.0/24, 10.1.2.3"; both may be mixed.
class ClientNetworks {
 public:
  /// None when the text is anything else; `reason` then says what is wrong.
  [[nodiscard]] static std::optional<ClientNetworks> parse(std::string_view text,
                                                           std::string& reason);

  /// `connected`: the host is directly connected.
  [[nodiscard]] bool contains(Ipv4Address host, bool connected) const;
  [[nodiscard]] std::string text() const;

 private:
  bool connected_ = false;
  std::vector<Ipv4Network> networks_;  // as they were written
};

/// Which ports may be opened, to whom, and how many.
struct Policy {
  Policy();

  PortRanges externalPorts;        ///< by default 1024-65535
  ClientNetworks internalClients;  ///< by default connected
  uint32_t maxRules = 4096;
  uint32_t maxRulesPerClient = 1024;

  /// The values by the names that they have in the policy file. None when the value is good, else
  /// what is wrong; nothing changed then.
  [[nodiscard]] std::optional<std::string> set(std::string_view name, std::string_view value);

  /// Why the rule may not be opened; empty when it may. A client is never the router itself, nor
  /// in a network on the side of the external address.
  [[nodiscard]] std::string refusal(const RuleKey& key, const Endpoint& client,
                                    const LocalNetworks& networks) const;
};

}  // namespace lumen
