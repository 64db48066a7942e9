#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>

#include "lumen/services/fence/NameServers.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/values/Ipv4.h"

namespace lumen {

/// The fence as nftables commands. They hold checked values only.
///
/// An output chain in each of the tables `ip lumen_fence` and `ip6 lumen_fence` judges the packets
/// of the fenced users, by the user of the socket that they leave by, and lets all others pass. It
/// stands before any translation, so it sees where the packet was sent. What is not granted is
/// refused at once: a connection with a reset, other packets with an error.
namespace fence {

/// What the services of each user may do, together.
using Users = std::map<uid_t, std::set<NetworkGrant>>;

/// The networks of internal interfaces, by the interface's name.
using Internal = std::map<std::string, std::set<Ipv4Network>>;

/// Whether nftables can name such an interface.
[[nodiscard]] bool canName(const std::string& interface);

/// Makes the IPv4 table, with nothing granted yet. The table must not exist.
[[nodiscard]] std::string makeIpv4Table(const Users& users);
/// The same for IPv6, where internal hosts get answers and announcements of PCP, and nothing else.
[[nodiscard]] std::string makeIpv6Table(const Users& users);

/// Replaces what is granted in one transaction. Each name in `internal` is one that canName().
[[nodiscard]] std::string grantInternal(const Internal& internal);
/// By the names of internal interfaces, each one that canName().
[[nodiscard]] std::string grantIpv6Internal(const std::set<std::string>& names);
[[nodiscard]] std::string grantNameServers(const NameServers& servers);
[[nodiscard]] std::string grantIpv6NameServers(const NameServers& servers);

}  // namespace fence
}  // namespace lumen
