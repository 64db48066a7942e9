#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/message.h"

namespace lumen {

/// What the broker must know of the services that have a service file.
class Services {
 public:
  /// The one that must know what became of a service.
  class Observer {
   public:
    virtual ~Observer() = default;
    /// The process has ended: what it sent before is to be handled now, before its end is judged.
    virtual void hearOut(pid_t pid) = 0;
    /// The service does not come up soon; who waits for it waits in vain.
    virtual void unavailable(uint32_t number) = 0;
  };

  virtual ~Services() = default;

  [[nodiscard]] virtual bool isDefined(uint32_t number) const = 0;
  /// Empty when it is not defined.
  [[nodiscard]] virtual std::string nameOf(uint32_t number) const = 0;
  /// The services that run as this user, in rising order.
  [[nodiscard]] virtual std::vector<uint32_t> servicesOf(uid_t user) const = 0;

  /// Whether it may ask other services for something.
  [[nodiscard]] virtual bool mayAsk(uint32_t number) const = 0;

  /// A request for this service, which is defined, has arrived and no connection serves it. Starts
  /// it if that is possible; an administrator's request ends a back-off. True when a process that
  /// will serve it is on its way.
  virtual bool need(uint32_t number, bool administrator) = 0;

  /// A connection serves the number.
  virtual void registered(uint32_t number) = 0;
  /// It does no more, by its own will.
  virtual void unregistered(uint32_t number) = 0;
  /// It does no more, since the connection has ended.
  virtual void lost(uint32_t number) = 0;

  /// A record with the fields of lm::broker::listed for each service, in rising order of number.
  [[nodiscard]] virtual std::vector<lm::message> list() const = 0;
};

}  // namespace lumen
