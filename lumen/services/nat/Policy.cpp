#include "lumen/services/nat/Policy.h"

#include <algorithm>
#include <charconv>

namespace lumen {

namespace {

// A policy is read by people.
constexpr size_t maxEntries = 64;

// Above it the table would no longer fit a small router's memory.
constexpr uint32_t highestLimit = 65536;

constexpr std::string_view noPorts = "none";
constexpr std::string_view internalWord = "internal";
constexpr std::string_view connectedWord = "connected";

constexpr size_t longestName = 15;

std::string_view trim(std::string_view text) {
  constexpr std::string_view blanks = " \t";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::vector<std::string_view> splitList(std::string_view text) {
  std::vector<std::string_view> entries;
  for (;;) {
    size_t comma = text.find(',');
    entries.push_back(trim(text.substr(0, comma)));
    if (comma == std::string_view::npos) return entries;
    text.remove_prefix(comma + 1);
  }
}

// A decimal number without sign, and nothing else.
std::optional<uint32_t> number(std::string_view text, uint32_t lowest, uint32_t highest) {
  uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (value < lowest || value > highest) return std::nullopt;
  return value;
}

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// RFC 1122 section 3.2.1.3: neither "this" network, loopback, multicast, reserved nor broadcast.
bool isUnicastHost(Ipv4Address address) {
  uint32_t network = address.number() >> 24;
  return network != 0 && network != 127 && network < 224;
}

/// Whether an interface can have that name, and it is not read as an address.
bool isInterfaceName(std::string_view text) {
  if (text.empty() || text.size() > longestName) return false;
  const auto wrong = [](char c) { return c <= ' ' || c > '~' || c == '/' || c == ':'; };
  return std::ranges::none_of(text, wrong) &&
         text.find_first_not_of("0123456789.") != std::string_view::npos;
}

}  // namespace

Result<PortRanges> PortRanges::parse(std::string_view text) {
  PortRanges ports;
  for (std::string_view entry : splitList(text)) {
    size_t dash = entry.find('-');
    auto first = number(trim(entry.substr(0, dash)), 1, 65535);
    auto last =
        dash == std::string_view::npos ? first : number(trim(entry.substr(dash + 1)), 1, 65535);
    if (!first || !last || *first > *last) {
      return Failure{quoted(entry) + " is neither a port from 1 to 65535 nor a range of ports"};
    }
    ports.ranges_.push_back(
        {.first = static_cast<uint16_t>(*first), .last = static_cast<uint16_t>(*last)});
  }
  if (ports.ranges_.size() > maxEntries) return Failure{"more than 64 ranges of ports"};
  return ports;
}

bool PortRanges::contains(uint16_t port) const {
  return std::ranges::any_of(
      ranges_, [port](const Range& range) { return range.first <= port && port <= range.last; });
}

std::string PortRanges::text() const {
  if (ranges_.empty()) return std::string(noPorts);
  std::string result;
  for (const Range& range : ranges_) {
    if (!result.empty()) result += ", ";
    result += std::to_string(range.first);
    if (range.last != range.first) result += "-" + std::to_string(range.last);
  }
  return result;
}

Result<ClientNetworks> ClientNetworks::parse(std::string_view text) {
  ClientNetworks clients;
  for (std::string_view entry : splitList(text)) {
    if (entry == internalWord || entry == connectedWord) {
      (entry == internalWord ? clients.internal_ : clients.connected_) = true;
      continue;
    }
    if (isInterfaceName(entry)) {
      clients.names_.emplace_back(entry);
      continue;
    }
    size_t slash = entry.find('/');
    auto address = Ipv4Address::parse(entry.substr(0, slash));
    auto prefix =
        slash == std::string_view::npos ? uint32_t{32} : number(entry.substr(slash + 1), 0, 32);
    if (!address || !prefix) {
      return Failure{quoted(entry) +
                     " is neither \"internal\", \"connected\", an interface, an address nor a "
                     "network like 192.168.88.0/24"};
    }
    const Ipv4Network network(*address, *prefix);
    if (network.first() != *address) {
      return Failure{quoted(entry) + " has bits set after its prefix"};
    }
    clients.networks_.push_back(network);
  }
  if (clients.names_.size() + clients.networks_.size() > maxEntries) {
    return Failure{"more than 64 interfaces and networks"};
  }
  return clients;
}

bool ClientNetworks::contains(Ipv4Address host,
                              const std::optional<KnownInterfaces::Known>& interface) const {
  if (interface && (connected_ || (internal_ && interface->internal) ||
                    std::ranges::find(names_, interface->name) != names_.end())) {
    return true;
  }
  return std::ranges::any_of(networks_,
                             [host](const Ipv4Network& network) { return network.holds(host); });
}

bool ClientNetworks::containsAllOf(const std::string& interface) const {
  return connected_ || internal_ || std::ranges::find(names_, interface) != names_.end();
}

std::string ClientNetworks::text() const {
  std::string result;
  const auto add = [&result](std::string_view entry) {
    if (!result.empty()) result += ", ";
    result += entry;
  };
  if (internal_) add(internalWord);
  if (connected_) add(connectedWord);
  for (const std::string& name : names_) add(name);
  for (const Ipv4Network& network : networks_) {
    add(network.prefix() == 32 ? network.first().text() : network.text());
  }
  return result;
}

Policy::Policy()
    : externalPorts(*PortRanges::parse("1024-65535")),
      internalClients(*ClientNetworks::parse(internalWord)),
      // Without SSH, Telnet, the remote calls, names and files of Windows, RDP and VNC.
      internalPorts(
          *PortRanges::parse("1-21, 24-134, 136, 140-444, 446-3388, 3390-5899, 5901-65535")) {}

Result<void> Policy::set(std::string_view name, std::string_view value) {
  if (name == "external-ports") {
    const auto ports = PortRanges::parse(value);
    if (!ports) return Failure{"external-ports: " + ports.why()};
    externalPorts = *ports;
  } else if (name == "internal-ports" || name == "router-ports") {
    const bool router = name == "router-ports";
    const auto ports =
        router && value == noPorts ? Result<PortRanges>(PortRanges()) : PortRanges::parse(value);
    if (!ports) return Failure{std::string(name) + ": " + ports.why()};
    (router ? routerPorts : internalPorts) = *ports;
  } else if (name == "internal-clients") {
    const auto clients = ClientNetworks::parse(value);
    if (!clients) return Failure{"internal-clients: " + clients.why()};
    internalClients = *clients;
  } else if (name == "max-rules" || name == "max-rules-per-client") {
    auto limit = number(value, 0, highestLimit);
    if (!limit) {
      return Failure{std::string(name) + ": " + quoted(value) + " is not a number from 0 to 65536"};
    }
    (name == "max-rules" ? maxRules : maxRulesPerClient) = *limit;
  } else {
    return Failure{quoted(name) + " is not a setting"};
  }
  return {};
}

Result<void> Policy::allows(const RuleKey& key, const Endpoint& client,
                            const LocalNetworks& networks,
                            const KnownInterfaces& interfaces) const {
  if (auto allowed = allowsPort(key.external.port); !allowed) return allowed;
  return allowsClient(key, client, networks, interfaces);
}

Result<void> Policy::allowsPort(uint16_t externalPort) const {
  if (externalPorts.contains(externalPort)) return {};
  return Failure{"external port " + std::to_string(externalPort) + " is not allowed by the policy"};
}

Result<void> Policy::allowsClient(const RuleKey& key, const Endpoint& client,
                                  const LocalNetworks& networks,
                                  const KnownInterfaces& interfaces) const {
  std::string host = "internal client " + client.address.text();
  if (!isUnicastHost(client.address)) return Failure{host + " is not the address of a host"};
  if (networks.isOwn(client.address)) return Failure{host + " is this router"};
  auto side = networks.interfaceTowards(client.address);
  if (side && side == networks.interfaceOf(key.external.address)) {
    return Failure{host + " is on the side of the external address"};
  }
  const auto interface = side ? interfaces.known(*side) : std::nullopt;
  if (!internalClients.contains(client.address, interface)) {
    return Failure{host + " is not allowed by the policy" +
                   (side ? "" : ": it is not directly connected")};
  }
  if (!internalPorts.contains(client.port)) {
    return Failure{"internal port " + std::to_string(client.port) +
                   " is not allowed by the policy"};
  }
  if (networks.isReserved(client.address)) return Failure{host + " is not the address of a host"};
  return {};
}

}  // namespace lumen
