#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumen/services/PortGrant.h"
#include "lumen/values/Result.h"

namespace lumen {

/// Which hosts a service may send packets to.
enum class NetworkGrant {
  none,         ///< no host
  internal,     ///< those in the networks of internal interfaces, and the discovery group there
  nameServers,  ///< the resolver's name servers, port 53
  answers,      ///< those that have sent to it first, through internal interfaces
};

/// A program that runs as a service, as its service file describes it:
///
///     [service]
///     name = upnp                          ; a to z, 0 to 9 and "-", at most 32
///     number = 40                          ; 1 to 65535, on which it serves requests
///     executable = /usr/bin/palinode-igd   ; absolute path
///     user = palinode                      ; name or number, never root
///     group = palinode                     ; left out: the user's own, or of the user's number
///     boot = yes                           ; left out or no: starts when it is first needed
///     answers-only = yes                   ; left out or no: may ask other services for something
///     reads = yes                          ; left out or no; yes: may read, and ask nothing else
///     stores = upnp upnpm                  ; left out: none; directories below /lumen/store
///     network = internal                   ; or answers, name-servers or none; left out: none
///     capabilities = net-bind-service      ; left out: none; there is no other
///     ports = yes                          ; left out or no: may open none
///     most-ports = 1000                    ; left out: as many as the NAT policy allows
///     longest-lease = 86400                ; in seconds; left out: ports may be permanent
struct ServiceDefinition {
  std::string name;
  uint32_t number = 0;
  std::string executable;
  uid_t user = 0;
  gid_t group = 0;
  bool boot = false;
  bool answersOnly = false;
  bool reads = false;           // what administrators can read; it may ask for nothing else
  bool netBindService = false;  // CAP_NET_BIND_SERVICE: may bind ports below 1024
  std::vector<std::string> stores;
  std::optional<PortGrant> ports;       // none: may open none
  std::optional<NetworkGrant> network;  // none: the file does not say, which grants nothing
};

/// Looks up users and groups by name.
class UserDatabase {
 public:
  struct User {
    uid_t id = 0;
    gid_t group = 0;
  };

  virtual ~UserDatabase() = default;
  [[nodiscard]] virtual std::optional<User> user(const std::string& name) const = 0;
  [[nodiscard]] virtual std::optional<gid_t> group(const std::string& name) const = 0;
};

/// The users that the system knows.
class SystemUsers : public UserDatabase {
 public:
  [[nodiscard]] std::optional<User> user(const std::string& name) const override;
  [[nodiscard]] std::optional<gid_t> group(const std::string& name) const override;
};

/// The longest service file, in bytes.
inline constexpr size_t maxServiceFile = 16384;

/// The service that `text` describes. Fails when it is wrong in any way.
[[nodiscard]] Result<ServiceDefinition> parseServiceFile(std::string_view text,
                                                         const UserDatabase& users);

}  // namespace lumen
