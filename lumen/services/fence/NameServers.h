#pragma once

#include <compare>
#include <set>
#include <string>
#include <string_view>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// The name servers that a program asks which reads a resolv.conf(5).
struct NameServers {
  std::set<Ipv4Address> ipv4;
  std::set<std::string> ipv6;  ///< as inet_ntop writes them, without a scope

  /// Reads the lines "nameserver ADDRESS". What is no address is left out; without an address
  /// there is 127.0.0.1, as the resolver library has it.
  [[nodiscard]] static NameServers parse(std::string_view text);

  bool operator==(const NameServers&) const = default;
};

}  // namespace lumen
