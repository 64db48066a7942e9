#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "lumen/services/interfaces/KeptNames.h"
#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Ipv6.h"

namespace lumen {

/// This router's IPv6 addresses, and the networks that its internal interfaces reach directly.
class Ipv6Networks : public Links::Listener, public KeptNames::Listener {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;
    /// Which hosts are internal may have changed.
    virtual void internalHostsChanged() = 0;
  };

  Ipv6Networks() = default;
  Ipv6Networks(const Ipv6Networks&) = delete;
  Ipv6Networks& operator=(const Ipv6Networks&) = delete;

  /// `observer` must outlive this.
  void setObserver(Observer& observer) { observer_ = &observer; }

  /// Whether a link of this router holds `address`.
  [[nodiscard]] bool isOwn(const Ipv6Address& address) const;
  /// The name of the internal interface whose network contains `host`; none when it is not directly
  /// connected to one, or an address that no router forwards to.
  [[nodiscard]] std::optional<std::string> internalInterfaceOf(const Ipv6Address& host) const;

  void internalNames(std::set<std::string> names) override;
  void tablesRead(const LinkSnapshot& all) override;
  void linkChanged(const Link& link) override;
  void linkGone(uint32_t index) override;
  void addressAdded(uint32_t /*index*/, const LinkAddress& /*address*/) override {}
  void addressRemoved(uint32_t /*index*/, const LinkAddress& /*address*/) override {}
  void ipv6AddressAdded(uint32_t index, const Ipv6LinkAddress& address) override;
  void ipv6AddressRemoved(uint32_t index, const Ipv6LinkAddress& address) override;

 private:
  void notify() const;

  Observer* observer_ = nullptr;  // not owned; null until it is set
  std::set<std::string> internalNames_;
  std::map<uint32_t, std::string> names_;  // of links, by kernel index
  std::map<uint32_t, std::set<Ipv6LinkAddress>> addresses_;
};

}  // namespace lumen
