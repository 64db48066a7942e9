#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "lumen/services/broker/Peer.h"
#include "lumen/services/broker/Services.h"
#include "lumen/services/broker/Subscriptions.h"

namespace lumen {

/// What a connection may do, decided when it is made. Local handlers check the rights to their own
/// commands.
class Rights {
 public:
  /// `administrators` is the group whose members may do everything, if there is one.
  Rights(const Peer& peer, const Services& services, std::optional<gid_t> administrators);

  /// Whether the connection is accepted at all.
  [[nodiscard]] bool any() const { return administrator_ || !services_.empty(); }
  [[nodiscard]] bool administrator() const { return administrator_; }
  /// The services whose user this is, in rising order.
  [[nodiscard]] const std::vector<uint32_t>& services() const { return services_; }

  /// Whether it may send any kind of request to services.
  [[nodiscard]] bool mayAsk() const { return mayAsk_; }
  /// Whether it may read what administrators can read: the broker's list of services, and what
  /// mayRead(path) says.
  [[nodiscard]] bool mayRead() const { return mayRead_; }
  /// Whether it may read at this path, and subscribe to its notifications, even if it may not ask.
  [[nodiscard]] bool mayRead(Path path) const;
  /// Whether this is a request that only reads there, and it may.
  [[nodiscard]] bool mayRead(Path path, uint32_t command) const;
  /// Whether it may subscribe there, to be notified of what is its own.
  [[nodiscard]] bool mayHearOfItsOwn(Path path) const;
  [[nodiscard]] bool mayServe(uint32_t number) const;
  /// Whether it may send requests to another program.
  [[nodiscard]] bool mayCall(uint32_t number) const;

 private:
  bool administrator_ = false;
  std::vector<uint32_t> services_;
  bool mayAsk_ = false;
  bool mayRead_ = false;
  bool opensPorts_ = false;
};

}  // namespace lumen
