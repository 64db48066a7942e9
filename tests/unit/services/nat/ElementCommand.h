#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "lumen/services/nat/Rule.h"
#include "lumen/services/system/netfilter/SetElements.h"
#include "lumen/values/Ipv4.h"

namespace lumen::test {

inline std::string addressText(const ElementPart& part) {
  return Ipv4Address::fromBytes(std::bit_cast<uint32_t>(part)).text();
}

inline std::string portText(const ElementPart& part) {
  return std::to_string(std::to_integer<int>(part[0]) * 256 + std::to_integer<int>(part[1]));
}

/// As nft(8) writes it: "45.45.45.1 . tcp . 8080", of an interval with
/// " . 198.51.100.0-198.51.100.255".
inline std::string keyText(const ElementParts& key, const ElementParts& end = {}) {
  const auto number = std::to_integer<int>(key.at(1)[0]);
  const std::string protocol = number == 6 ? "tcp" : number == 17 ? "udp" : std::to_string(number);
  std::string text = addressText(key.at(0)) + " . " + protocol + " . " + portText(key.at(2));
  if (!end.empty()) text += " . " + addressText(key.at(3)) + "-" + addressText(end.at(3));
  return text;
}

/// "192.168.88.10 . 80"
inline std::string clientText(const ElementParts& data) {
  return addressText(data.at(0)) + " . " + portText(data.at(1));
}

inline std::string setText(const ElementSet& set) {
  return std::string(set.family == TableFamily::ip ? "ip " : "ip6 ") + set.table + " " + set.name;
}

/// The command of nft(8) that does the same:
/// "add element ip lumen forwards { 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }".
inline std::string elementCommand(const ElementChange& change) {
  const bool adds = change.action == ElementAction::add;
  std::string command = adds ? "add element " : "delete element ";
  command += setText(change.set) + " { ";
  for (const SetElement& element : change.elements) {
    if (&element != &change.elements.front()) command += ", ";
    command += keyText(element.key, element.keyEnd);
    if (!adds) continue;
    if (element.counter) {
      command += " counter packets " + std::to_string(element.counter->packets) + " bytes " +
                 std::to_string(element.counter->bytes);
    }
    command += " : " + clientText(element.data);
  }
  return command + " }";
}

/// A line for each.
inline std::string elementCommands(std::span<const ElementChange> changes) {
  std::string commands;
  for (const ElementChange& change : changes) {
    if (!commands.empty()) commands += "\n";
    commands += elementCommand(change);
  }
  return commands;
}

/// The key of the element of an open port.
inline ElementParts keyParts(const RuleKey& key) {
  return {std::bit_cast<ElementPart>(key.external.address.bytes()),
          {std::byte(key.protocol)},
          {std::byte(key.external.port >> 8), std::byte(key.external.port & 0xff)}};
}

}  // namespace lumen::test
