#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The chains of other programs' firewalls for forwarded packets: what matters for open ports, and
/// for pinholes of IPv6.
namespace lumenctl {

/// What a rule does to the first packet that comes from the Internet for an open port.
enum class RuleEffect {
  unknown,           ///< none, or it depends on what cannot be seen here
  acceptsOpenPorts,  ///< lets pass what was translated to another destination
  acceptsPinholes,   ///< lets pass what has the label of pinholes
  acceptsAll,
  dropsAll,
};

struct ForwardRule {
  /// Whether it can hold for packets that come in by this interface; of no name: by some interface.
  [[nodiscard]] bool holdsFor(const std::string& link) const;

  [[nodiscard]] bool operator==(const ForwardRule&) const = default;

  RuleEffect effect = RuleEffect::unknown;
  /// The incoming interfaces that it names, as linkPattern gives them. Empty: any, or those cannot
  /// be seen here.
  std::vector<std::string> links;
};

/// A chain that the kernel calls for each forwarded packet.
struct ForwardChain {
  enum class Tool { nft, iptables, iptablesLegacy };  ///< what its rules are changed with
  enum class Manager { none, ufw, firewalld };        ///< the program that keeps them

  /// Whether it seems to stop the packets for open ports that come in by this interface; of no
  /// name: by all interfaces.
  [[nodiscard]] bool stopsOpenPorts(const std::string& link) const;
  /// The same of the packets for pinholes.
  [[nodiscard]] bool stopsPinholes(const std::string& link) const;

  Tool tool = Tool::nft;
  Manager manager = Manager::none;
  std::string family;  ///< as nft names it: "ip", "ip6" or "inet"
  std::string table;
  std::string name;
  bool dropsAtEnd = false;         ///< what no rule decides
  std::vector<ForwardRule> rules;  ///< in their order
  /// What accepts open ports or pinholes in chains of the same table, which rules of this one may
  /// lead to.
  std::vector<ForwardRule> elsewhere;

 private:
  [[nodiscard]] bool stops(RuleEffect accepted, const std::string& link) const;
};

/// `bytes` that the kernel compares with the start of an interface's name: up to its NUL when that
/// is among them, else the start of many names.
[[nodiscard]] std::string linkPattern(std::span<const std::byte> bytes);

/// Whether a chain that no hook calls is one of ufw's, by its name.
[[nodiscard]] inline bool isOfUfw(std::string_view chain) { return chain.starts_with("ufw-"); }

/// Whether a match of iptables (linux/netfilter/x_tables.h), of that name and revision and with the
/// parameters `info`, holds for what was translated to another destination: `--ctstate DNAT`.
[[nodiscard]] bool matchesOpenPorts(std::string_view match, uint32_t revision,
                                    std::span<const std::byte> info);

/// Whether it holds for what has the label of pinholes: `-m connlabel --label 125`.
[[nodiscard]] bool matchesPinholes(std::string_view match, std::span<const std::byte> info);

/// Whether a mask of connection labels, as the kernel keeps them, has that of pinholes.
[[nodiscard]] bool hasPinholeLabel(std::span<const std::byte> mask);

}  // namespace lumenctl
