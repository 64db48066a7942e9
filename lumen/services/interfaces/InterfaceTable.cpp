#include "lumen/services/interfaces/InterfaceTable.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"

namespace lumen {
namespace {

namespace key = lm::interfaces::key;

// Of a name that is refused; more of it would only fill the answer.
constexpr size_t longestShownName = 32;

/// The end of a log line about an action.
std::string whyFailed(const Result<void>& done) { return done ? "" : " failed: " + done.why(); }

lm::message toMessage(const lm::interfaces::Record& record) {
  lm::message m;
  lm::interfaces::write(m, record);
  return m;
}

lm::message notPermitted() { return lm::refusal("not permitted"); }

/// Whether a request to set fields names others than `disabled`.
bool setsMore(const lm::message& request) {
  return std::any_of(request.fields().begin(), request.fields().end(), [](const lm::Field& field) {
    switch (field.key) {
      case lm::key::destination:
      case lm::key::source:
      case lm::key::serial:
      case lm::key::command:
      case lm::key::objectId:
      case lm::key::disabled:
        return false;
      default:
        return true;
    }
  });
}

}  // namespace

InterfaceTable::InterfaceTable(Links& links, AddressTable& addresses, Notifier& notifier,
                               KeptNames::Listener& names, const std::string& storeDirectory,
                               const lm::Clock& clock)
    : links_(links),
      addresses_(addresses),
      notifier_(notifier),
      clock_(clock),
      store_(storeDirectory, RouteKeeper::records),
      kept_(store_, names),
      routes_(links, store_, clock) {
  for (const auto& [name, kept] : kept_.all()) {
    ids_.restore(name, kept.id);
    interfaces_[kept.id] = {name, kept.role, {}};
  }
}

void InterfaceTable::start() { links_.start(*this); }

std::optional<KnownInterfaces::Known> InterfaceTable::known(uint32_t interface) const {
  const auto it = interfaces_.find(interface);
  if (it == interfaces_.end()) return std::nullopt;
  return Known{.name = it->second.name,
               .index = it->second.link.index,
               .internal = it->second.role == lm::interfaces::roleInternal};
}

lm::message InterfaceTable::handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) {
  if (command == lm::cmd::list || command == lm::cmd::readAll) {
    return lm::pagedAnswer(request, interfaces_, [&](uint32_t id, const Interface& interface) {
      lm::interfaces::Record seen = record(id, interface);
      if (caller.mayKnowRoles()) seen.role = interface.role;
      return toMessage(seen);
    });
  }
  if (command == lm::cmd::addObject) return caller.administrator ? keep(request) : notPermitted();

  const uint32_t id = request.get_u32(lm::key::objectId);
  const auto it = interfaces_.find(id);
  switch (command) {
    case lm::cmd::readObject:
      return it == interfaces_.end() ? lm::refusal("no such object") : read(caller, id, it->second);
    case lm::cmd::setObject:
      return it == interfaces_.end() ? lm::refusal("no such object") : set(caller, id, request);
    case lm::cmd::removeObject:
      if (!caller.administrator) return notPermitted();
      return it == interfaces_.end() ? lm::refusal("no such object") : forget(it->second);
    default:
      return lm::refusal("unknown command");
  }
}

lm::message InterfaceTable::read(const Caller& caller, uint32_t id, const Interface& interface) {
  LinkCounters counters;
  if (interface.link.index != 0) {
    if (const auto now = links_.read(interface.link.index)) counters = now->counters;
  }
  lm::interfaces::Record seen = record(id, interface);
  seen.counters = lm::interfaces::Counters{.bytesReceived = counters.bytesReceived,
                                           .bytesSent = counters.bytesSent,
                                           .packetsReceived = counters.packetsReceived,
                                           .packetsSent = counters.packetsSent};
  if (caller.mayKnowRoles()) seen.role = interface.role;
  return toMessage(seen);
}

lm::message InterfaceTable::set(const Caller& caller, uint32_t id, const lm::message& request) {
  Interface& interface = interfaces_[id];
  const bool others = setsMore(request);
  if (!caller.administrator && (others || interface.role != lm::interfaces::roleExternal)) {
    return notPermitted();
  }
  if (others || !request.fields().find(lm::key::disabled)) {
    return lm::refusal("only \"disabled\" can be set");
  }
  if (interface.link.index == 0) return lm::refusal("the link is away");

  const bool disabled = request.get_bool(lm::key::disabled);
  // The table learns of a change a moment after it. What changes nothing costs a service nothing
  // and leaves no line: a LAN host could fill the log with it.
  const auto now = caller.administrator ? std::nullopt : links_.read(interface.link.index);
  const bool changes = !now || now->link.up == disabled;
  if (!caller.administrator && disabled && changes) {
    if (const auto allowed = takeSwitch(caller, interface); !allowed) {
      return lm::refusal(allowed.failure());
    }
  }
  const Result<void> switched = switchLink(interface, disabled);
  if (changes) {
    lm::logLine("interface ", interface.name, disabled ? " down" : " up", " for ",
                caller.name.empty() ? "the administrator" : caller.name, whyFailed(switched));
  }
  if (!switched) return lm::refusal(switched.failure());
  // When nothing changes, the kernel reports nothing, but the caller waits for a notification.
  if (interface.link.up == !disabled) {
    notifyState(record(id, interface));
  } else {
    undoWith([this, id, disabled] { undoSet(id, !disabled); });
  }
  return {};
}

Result<void> InterfaceTable::takeSwitch(const Caller& service, Interface& interface) {
  const lm::Clock::Time now = clock_.now();
  if (interface.switches.take(now)) return {};
  const std::string often =
      "taken down " + std::to_string(SwitchBudget::most) + " times in a minute";
  if (interface.switches.takeLogLine(now)) {
    lm::logLine("interface ", interface.name, ": ", often, ", ", service.name,
                " may not take it down again now");
  }
  return Failure{"the link was " + often + ", which is as often as a service may"};
}

Result<void> InterfaceTable::switchLink(const Interface& interface, bool disabled) {
  if (disabled) return routes_.takeDown(interface.name, interface.link.index);
  return links_.setUp(interface.link.index, true);
}

void InterfaceTable::undoSet(uint32_t id, bool disabled) {
  const auto it = interfaces_.find(id);
  if (it == interfaces_.end() || it->second.link.index == 0) return;
  const Result<void> switched = switchLink(it->second, disabled);
  lm::logLine("interface ", it->second.name, disabled ? " down" : " up", " again",
              whyFailed(switched));
}

lm::message InterfaceTable::keep(const lm::message& request) {
  const std::string name = request.get_string(key::name);
  const uint32_t role = request.get_u32(key::role);
  if (!KeptNames::isName(name))
    return lm::refusal("bad interface name '" + name.substr(0, longestShownName) + "'");
  if (role != lm::interfaces::roleExternal && role != lm::interfaces::roleInternal) {
    return lm::refusal("bad role");
  }
  const auto kept = kept_.all().find(name);
  const uint32_t before = kept == kept_.all().end() ? 0 : kept->second.role;
  if (before == 0 && kept_.all().size() >= KeptNames::limit) {
    return lm::refusal("too many kept names");
  }
  const auto id = keepName(name, role);
  if (!id) return lm::refusal(id.failure());
  undoWith([this, name, before] { undoRole(name, before); });
  lm::message reply;
  reply.insert_u32(lm::key::objectId, *id);
  return reply;
}

Result<uint32_t> InterfaceTable::keepName(const std::string& name, uint32_t role) {
  const uint32_t id = ids_.take(name);
  const bool known = interfaces_.contains(id);
  if (const auto kept = kept_.keep(name, {id, role}); !kept) {
    if (!known) ids_.release(name);
    return kept.failure();
  }
  if (known) {
    setRole(id, role);
  } else {
    interfaces_[id] = {name, role, {}};
    notify(id);
  }
  return id;
}

lm::message InterfaceTable::forget(const Interface& interface) {
  if (interface.role == 0) return lm::refusal("the name is not kept");
  const std::string name = interface.name;
  const uint32_t before = interface.role;
  if (const auto done = forgetName(name); !done) return lm::refusal(done.failure());
  undoWith([this, name, before] { undoRole(name, before); });
  return {};
}

Result<void> InterfaceTable::forgetName(const std::string& name) {
  const uint32_t id = kept_.all().at(name).id;
  if (auto forgotten = kept_.forget(name); !forgotten) return forgotten;
  setRole(id, 0);
  if (interfaces_[id].link.index == 0) leave(id);
  return {};
}

void InterfaceTable::setRole(uint32_t id, uint32_t role) {
  Interface& interface = interfaces_[id];
  if (std::exchange(interface.role, role) == role) return;
  notifier_.notify(lm::interfaces::roleChanged, lm::interfaces::path(), {});
}

void InterfaceTable::undoRole(const std::string& name, uint32_t role) {
  const bool kept = kept_.all().contains(name);
  const bool done = role != 0 ? keepName(name, role).ok() : !kept || forgetName(name).ok();
  if (!done) lm::logLine("interface ", name, ": its role of before could not be stored");
}

void InterfaceTable::tablesRead(const LinkSnapshot& all) {
  std::vector<uint32_t> gone;
  for (const auto& [index, id] : byIndex_) {
    if (!all.links.contains(index)) gone.push_back(index);
  }
  for (const uint32_t index : gone) linkGone(index);
  for (const auto& [index, link] : all.links) linkChanged(link);
  const auto held = [&all](uint32_t index) {
    const auto it = all.addresses.find(index);
    return it == all.addresses.end() ? std::set<LinkAddress>() : it->second;
  };
  for (const auto& [index, id] : byIndex_) {
    addresses_.replace(id, interfaces_[id].link.running, held(index));
  }
  addresses_.replaceLoopback(held(loopback_));
  routes_.forgetAllBut([this](const std::string& name) {
    return std::any_of(interfaces_.begin(), interfaces_.end(),
                       [&](const auto& item) { return item.second.name == name; });
  });
}

void InterfaceTable::linkChanged(const Link& link) {
  if (link.loopback) {
    loopback_ = link.index;
    return;
  }
  std::set<LinkAddress> carried;
  const auto known = byIndex_.find(link.index);
  if (known != byIndex_.end() && interfaces_[known->second].name != link.name) {
    carried = depart(known->second);
  }
  const uint32_t id = ids_.take(link.name);
  // A notification was lost: another link has the name now.
  const auto same = interfaces_.find(id);
  if (same != interfaces_.end() && same->second.link.index != 0 &&
      same->second.link.index != link.index) {
    depart(id);
    (void)ids_.take(link.name);  // its departure can have released the name
  }

  Interface& interface = interfaces_[id];
  const Link before = std::exchange(interface.link, link);
  interface.name = link.name;
  byIndex_[link.index] = id;
  if (before.index == 0 || before.hardwareType != link.hardwareType) {
    notify(id);
  } else if (before.up != link.up || before.running != link.running) {
    notifyState(record(id, interface));
    if (before.running != link.running) addresses_.announce(id, link.running);
  }
  for (const LinkAddress& address : carried) addresses_.add(id, link.running, address);
  if (link.running) routes_.restore(link.name, link.index);
}

void InterfaceTable::linkGone(uint32_t index) {
  const auto known = byIndex_.find(index);
  if (known != byIndex_.end()) depart(known->second);
}

void InterfaceTable::addressAdded(uint32_t index, const LinkAddress& address) {
  if (index == loopback_) addresses_.addLoopback(address);
  const auto known = byIndex_.find(index);
  if (known == byIndex_.end()) return;
  addresses_.add(known->second, interfaces_[known->second].link.running, address);
}

void InterfaceTable::addressRemoved(uint32_t index, const LinkAddress& address) {
  if (index == loopback_) addresses_.removeLoopback(address);
  const auto known = byIndex_.find(index);
  if (known != byIndex_.end()) addresses_.remove(known->second, address);
}

std::set<LinkAddress> InterfaceTable::depart(uint32_t id) {
  std::set<LinkAddress> held = addresses_.removeAll(id);
  Interface& interface = interfaces_[id];
  byIndex_.erase(interface.link.index);
  // The hardware type is remembered: it is the likely one of the next link of that name.
  Link away;
  away.hardwareType = interface.link.hardwareType;
  interface.link = away;
  if (interface.role != 0) {
    notify(id);
  } else {
    leave(id);
  }
  return held;
}

void InterfaceTable::leave(uint32_t id) {
  const auto it = interfaces_.find(id);
  routes_.forget(it->second.name);
  ids_.release(it->second.name);
  lm::interfaces::Record gone = record(id, it->second);
  gone.flags = lm::interfaces::flagGone;
  interfaces_.erase(it);
  notify(gone);
}

void InterfaceTable::notify(uint32_t id) {
  const Interface& interface = interfaces_[id];
  notify(record(id, interface));
  addresses_.announce(id, interface.link.running);
}

void InterfaceTable::notify(const lm::interfaces::Record& record) {
  notifier_.notify(lm::cmd::interfaceChanged, lm::interfaces::path(), toMessage(record));
  notifyState(record);
}

void InterfaceTable::notifyState(const lm::interfaces::Record& record) {
  lm::message m;
  m.insert_message_array(lm::key::records, {toMessage(record)});
  notifier_.notify(lm::cmd::changed, lm::interfaces::path(), m);
}

lm::interfaces::Record InterfaceTable::record(uint32_t id, const Interface& interface) {
  return {.id = id,
          .hardwareType = interface.link.hardwareType,
          .index = interface.link.index,
          .name = interface.name,
          .displayName = interface.name,
          .disabled = !interface.link.up,
          .running = interface.link.running};
}

}  // namespace lumen
