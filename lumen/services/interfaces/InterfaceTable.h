#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/services/LocalHandler.h"
#include "lumen/services/addresses/AddressTable.h"
#include "lumen/services/interfaces/InterfaceIds.h"
#include "lumen/services/interfaces/KeptNames.h"
#include "lumen/services/interfaces/RouteKeeper.h"
#include "lumen/services/interfaces/SwitchBudget.h"
#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Result.h"
#include "platform/Store.h"
#include "platform/wire/Interfaces.h"

namespace lumen {

/// The handler [20, 0]: this router's network interfaces, the kernel's links but for its loopback.
/// platform/wire/Interfaces.h describes its records and commands.
///
/// An id belongs to a name: a renamed link leaves as one interface and appears as another. A kept
/// name stays in the table while its link is away, not running and with kernel index 0; a name that
/// is not kept leaves with its link.
class InterfaceTable : public LocalHandler, public KnownInterfaces, private Links::Listener {
 public:
  /// Loads the kept names and saved routes from `storeDirectory`. What is given by reference
  /// must outlive this.
  InterfaceTable(Links& links, AddressTable& addresses, Notifier& notifier,
                 KeptNames::Listener& names, const std::string& storeDirectory,
                 const lm::Clock& clock);
  InterfaceTable(const InterfaceTable&) = delete;
  InterfaceTable& operator=(const InterfaceTable&) = delete;

  /// Reads the kernel's links and follows them from now on.
  void start();

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;

  [[nodiscard]] std::optional<Known> known(uint32_t interface) const override;

 private:
  struct Interface {
    std::string name;
    uint32_t role = 0;  // 0: not kept
    Link link;          // index 0: away
    SwitchBudget switches{};
  };
  using Interfaces = std::map<uint32_t, Interface>;

  [[nodiscard]] lm::message read(const Caller& caller, uint32_t id, const Interface& interface);
  [[nodiscard]] lm::message set(const Caller& caller, uint32_t id, const lm::message& request);
  /// Whether the service may take the link down now; what it may not is logged now and then.
  [[nodiscard]] Result<void> takeSwitch(const Caller& service, Interface& interface);
  [[nodiscard]] lm::message keep(const lm::message& request);
  [[nodiscard]] lm::message forget(const Interface& interface);
  /// Takes the link down or up.
  [[nodiscard]] Result<void> switchLink(const Interface& interface, bool disabled);
  /// Keeps the name with this role. Returns its id; fails when it could not be stored.
  [[nodiscard]] Result<uint32_t> keepName(const std::string& name, uint32_t role);
  /// Ends the keeping of a kept name; fails when that could not be stored.
  [[nodiscard]] Result<void> forgetName(const std::string& name);

  // Undo a change whose requester gave up. Failures are logged.
  void undoSet(uint32_t id, bool disabled);
  void setRole(uint32_t id, uint32_t role);
  void undoRole(const std::string& name, uint32_t role);

  void tablesRead(const LinkSnapshot& all) override;
  void linkChanged(const Link& link) override;
  void linkGone(uint32_t index) override;
  void addressAdded(uint32_t index, const LinkAddress& address) override;
  void addressRemoved(uint32_t index, const LinkAddress& address) override;

  /// The link of the interface has gone. Returns the addresses that it had.
  std::set<LinkAddress> depart(uint32_t id);
  /// An interface without a link leaves the table.
  void leave(uint32_t id);
  /// Notifies that the interface is new or has changed, then of its state, then of its addresses.
  void notify(uint32_t id);
  void notifyState(const lm::interfaces::Record& record);
  /// Notifies that the interface is new, has changed or is gone, then of its state.
  void notify(const lm::interfaces::Record& record);

  /// What every caller may see: without the role.
  [[nodiscard]] static lm::interfaces::Record record(uint32_t id, const Interface& interface);

  Links& links_;
  AddressTable& addresses_;
  Notifier& notifier_;
  const lm::Clock& clock_;
  lm::Store store_;
  KeptNames kept_;
  RouteKeeper routes_;
  InterfaceIds ids_;
  Interfaces interfaces_;                 // by id
  std::map<uint32_t, uint32_t> byIndex_;  // kernel index -> id
  uint32_t loopback_ = 0;                 // kernel index; 0: not seen yet
};

}  // namespace lumen
