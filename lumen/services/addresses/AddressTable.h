#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "lumen/services/LocalHandler.h"
#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Ipv4.h"

namespace lumen {

/// The handler [20, 1]: the IPv4 addresses of this router's interfaces, one object per interface
/// and address. Ids rise and are never used twice. platform/wire/Addresses.h says what a record
/// holds.
///
/// The interface table reports the changes and decides when to notify, so that an interface appears
/// before its addresses and leaves after them.
class AddressTable : public LocalHandler, public LocalNetworks {
 public:
  /// `notifier` must outlive this.
  explicit AddressTable(Notifier& notifier) : notifier_(notifier) {}
  AddressTable(const AddressTable&) = delete;
  AddressTable& operator=(const AddressTable&) = delete;

  /// Answers list, readAll and readObject, to every caller.
  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;

  /// The interface holds `address`. Notifies when it did not hold it with any network before.
  void add(uint32_t interface, bool running, const LinkAddress& address);
  /// The interface does not hold `address` any more. Notifies when no network of it is left.
  void remove(uint32_t interface, const LinkAddress& address);
  /// The interface holds exactly `addresses`: adds and removes what differs.
  void replace(uint32_t interface, bool running, const std::set<LinkAddress>& addresses);
  /// The interface holds no address any more; notifies of each. Returns the addresses that it held.
  std::set<LinkAddress> removeAll(uint32_t interface);
  /// Notifies of all addresses of the interface, which is or is not running.
  void announce(uint32_t interface, bool running);

  // The addresses of the loopback. They are not objects: no program is notified of them.
  void addLoopback(const LinkAddress& address) { loopback_.insert(address); }
  void removeLoopback(const LinkAddress& address) { loopback_.erase(address); }
  void replaceLoopback(const std::set<LinkAddress>& addresses) { loopback_ = addresses; }

  /// Of several interfaces with the same address the one with the lowest id.
  [[nodiscard]] std::optional<uint32_t> interfaceOf(Ipv4Address address) const override;
  /// The kernel treats the whole network of a loopback address as local.
  [[nodiscard]] bool isOwn(Ipv4Address address) const override;
  [[nodiscard]] bool isReserved(Ipv4Address address) const override;
  /// Of several networks the one with the longest prefix, then the one whose interface has the
  /// lowest id. A network of a single address holds the peer of a point-to-point link or no host; a
  /// network of two addresses holds both (RFC 3021).
  [[nodiscard]] std::optional<uint32_t> interfaceTowards(Ipv4Address host) const override;

 private:
  struct Entry {
    uint32_t interface = 0;
    Ipv4Address address;
    bool running = false;  // the interface
    std::set<LinkAddress> networks;
  };

  /// Calls `visit` with every entry of the interface, in rising order of id.
  template <typename Visit>
  void visitEntries(uint32_t interface, Visit visit);
  [[nodiscard]] std::set<LinkAddress> held(uint32_t interface);
  [[nodiscard]] static lm::message record(uint32_t id, const Entry& entry);
  [[nodiscard]] static lm::message removedRecord(uint32_t id, const Entry& entry);
  /// In as many notifications as it takes.
  void notify(std::vector<lm::message> records);

  Notifier& notifier_;
  uint32_t lastId_ = 0;
  std::map<uint32_t, Entry> entries_;                            // by id
  std::map<std::pair<Ipv4Address, uint32_t>, uint32_t> places_;  // address, interface -> id
  std::set<LinkAddress> loopback_;
};

}  // namespace lumen
