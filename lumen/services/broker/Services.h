#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/services/PortGrant.h"
#include "platform/message.h"

namespace lumen {

/// What the broker needs to know about the services that have a service file.
class Services {
 public:
  /// Is notified of what becomes of a service.
  class Observer {
   public:
    virtual ~Observer() = default;
    /// The process has ended. Handle everything that it has sent before this returns: whether it
    /// unregistered decides what its end means.
    virtual void drainConnections(pid_t pid) = 0;
    /// The service will not come up soon: refuse the requests that wait for it.
    virtual void unavailable(uint32_t number) = 0;
  };

  virtual ~Services() = default;

  [[nodiscard]] virtual bool isDefined(uint32_t number) const = 0;
  /// Empty when it is not defined.
  [[nodiscard]] virtual std::string nameOf(uint32_t number) const = 0;
  /// The services that run as this user, in rising order.
  [[nodiscard]] virtual std::vector<uint32_t> servicesOf(uid_t user) const = 0;

  /// Whether it may send requests to other services.
  [[nodiscard]] virtual bool mayAsk(uint32_t number) const = 0;
  /// Whether it may read what administrators can read.
  [[nodiscard]] virtual bool mayRead(uint32_t number) const = 0;

  /// Which ports it may open; none: it may open none.
  [[nodiscard]] virtual std::optional<PortGrant> portsOf(uint32_t number) const = 0;

  /// A request for this service, defined or not, is about to be passed on.
  virtual void asked(uint32_t number) = 0;

  /// A request for this service, which is defined, has arrived and no connection serves it. Starts
  /// it if that is possible; an administrator's request ends a back-off. True when a process is
  /// about to serve it.
  virtual bool need(uint32_t number, bool administrator) = 0;

  /// A connection serves the number.
  virtual void registered(uint32_t number) = 0;
  /// The connection has unregistered the number.
  virtual void unregistered(uint32_t number) = 0;
  /// The connection that served the number has ended.
  virtual void lost(uint32_t number) = 0;

  /// A record with the fields of lm::broker::listed for each service, in rising order of number.
  [[nodiscard]] virtual std::vector<lm::message> list() const = 0;
  /// That of this process, in bytes; 0: not known.
  [[nodiscard]] virtual uint64_t residentMemory() const = 0;
};

}  // namespace lumen
