#pragma once

#include <map>
#include <string>
#include <string_view>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"

namespace lumen::web {

using NamesByAddress = std::map<Ipv4Address, std::string>;

/// Adds the names of a hosts file (hosts(5)); the first of each address counts.
void readHosts(std::string_view text, NamesByAddress& names);
/// Adds the names of dnsmasq's leases: expiry, hardware address, address, name, client on a line.
void readLeases(std::string_view text, NamesByAddress& names);

/// The names of LAN hosts, from the files of this router that have some. They are what these hosts
/// call themselves: text of strangers.
class HostNames {
 public:
  static constexpr const char* hostsFile = "/etc/hosts";
  static constexpr const char* leaseFolder = "/var/lib/misc";
  static constexpr const char* leaseFile = "/var/lib/misc/dnsmasq.leases";

  /// `clock` must outlive this.
  explicit HostNames(const lm::Clock& clock) : clock_(clock) {}

  /// Reads the files again, at most every ten seconds.
  void refresh();
  /// Its name, or its address as text.
  [[nodiscard]] std::string of(Ipv4Address address) const;

 private:
  const lm::Clock& clock_;
  lm::Clock::Time next_;
  NamesByAddress names_;
};

}  // namespace lumen::web
