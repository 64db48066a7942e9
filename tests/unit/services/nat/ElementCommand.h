#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "lumen/services/system/netfilter/SetElements.h"
#include "lumen/values/Ipv4.h"

namespace lumen::test {

/// The command of nft(8) that does the same:
/// "add element ip lumen forwards { 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }".
inline std::string elementCommand(ElementChange change, const ElementMap& map,
                                  std::span<const MapElement> elements) {
  const auto address = [](const ElementPart& part) {
    return Ipv4Address::fromBytes(std::bit_cast<uint32_t>(part)).text();
  };
  const auto port = [](const ElementPart& part) {
    return std::to_string(std::to_integer<int>(part[0]) * 256 + std::to_integer<int>(part[1]));
  };
  const auto protocol = [](const ElementPart& part) {
    const auto number = std::to_integer<int>(part[0]);
    return number == 6 ? "tcp" : number == 17 ? "udp" : std::to_string(number);
  };
  const bool adds = change == ElementChange::add;
  std::string command = adds ? "add" : "delete";
  command += std::string(" element ip ") + map.table + " " + map.name + " { ";
  for (const MapElement& element : elements) {
    if (&element != &elements.front()) command += ", ";
    command +=
        address(element.key[0]) + " . " + protocol(element.key[1]) + " . " + port(element.key[2]);
    if (adds) command += " : " + address(element.client[0]) + " . " + port(element.client[1]);
  }
  return command + " }";
}

}  // namespace lumen::test
