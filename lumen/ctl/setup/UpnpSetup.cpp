#include "lumen/ctl/setup/UpnpSetup.h"

#include <algorithm>
#include <cstdint>

#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

struct Wanted {
  std::string name;
  Role role = Role::none;
  uint32_t id = 0;  // 0: not kept yet
};

std::vector<Wanted> listOf(const std::vector<std::string>& internal, const std::string& external) {
  std::vector<Wanted> result;
  result.reserve(internal.size() + 1);
  for (const std::string& name : internal) result.push_back({name, Role::internal, 0});
  result.push_back({external, Role::external, 0});
  for (auto it = result.begin(); it != result.end(); ++it) {
    if (std::any_of(result.begin(), it, [&](const Wanted& w) { return w.name == it->name; })) {
      throw WrongUsage("interface '" + it->name + "' is named twice");
    }
  }
  return result;
}

/// A kept name has an id even while there is no link of that name, and keeps it.
void keepNames(Session& session, const std::vector<Interface>& present,
               std::vector<Wanted>& wanted) {
  for (Wanted& w : wanted) {
    const auto it = std::find_if(present.begin(), present.end(),
                                 [&](const Interface& p) { return p.name == w.name; });
    if (it != present.end() && it->role == w.role) {
      w.id = it->id;
      continue;
    }
    w.id = session.router().keep(w.name, w.role);
    session.done(w.name + ": kept as " + roleName(w.role));
  }
}

std::string nameOf(uint32_t id, const std::vector<Interface>& present) {
  const auto it =
      std::find_if(present.begin(), present.end(), [id](const Interface& p) { return p.id == id; });
  return it == present.end() ? "interface " + std::to_string(id) : it->name;
}

void removeOthers(Session& session, const std::vector<Interface>& present,
                  const std::vector<GatewayObject>& objects, const std::vector<Wanted>& wanted) {
  for (const GatewayObject& object : objects) {
    if (std::any_of(wanted.begin(), wanted.end(),
                    [&](const Wanted& w) { return w.id == object.interfaceId; })) {
      continue;
    }
    session.router().removeGatewayObject(object.id);
    const std::string name = nameOf(object.interfaceId, present);
    session.done(name + ": no longer used by the gateway");
  }
}

void addOrSet(Session& session, const std::vector<GatewayObject>& objects, const Wanted& wanted) {
  GatewayObject object;
  object.interfaceId = wanted.id;
  object.role = wanted.role;
  const auto it = std::find_if(objects.begin(), objects.end(),
                               [&](const GatewayObject& o) { return o.interfaceId == wanted.id; });
  if (it == objects.end()) {
    session.router().addGatewayObject(object);
  } else {
    object.id = it->id;
    if (*it == object) return;
    session.router().setGatewayObject(object);
  }
  session.done(wanted.name + ": used by the gateway as " + roleName(wanted.role));
}

void writeDisconnect(Session& session, Settings& settings, const std::string& external,
                     bool allowed) {
  settings.allowDisableExternal = allowed;
  session.router().writeSettings(settings);
  session.done("allow-disable-external: " +
               (allowed ? "on; programs on the LAN can take " + external + " down and up"
                        : "off; no program on the LAN can take " + external +
                              " down (--allow-disconnect permits it)"));
}

std::vector<std::string> namesOf(const std::vector<Wanted>& wanted) {
  std::vector<std::string> names;
  names.reserve(wanted.size());
  for (const Wanted& w : wanted) names.push_back(w.name);
  return names;
}

}  // namespace

void requirePresent(const std::vector<std::string>& names,
                    const std::vector<Interface>& interfaces) {
  std::vector<std::string> present;
  for (const Interface& interface : interfaces) {
    if (!interface.isAway()) present.push_back(interface.name);
  }
  std::vector<std::string> missing;
  for (const std::string& name : names) {
    if (std::find(present.begin(), present.end(), name) == present.end()) {
      missing.push_back("'" + name + "'");
    }
  }
  if (missing.empty()) return;
  throw Refused("there is no interface " + joined(missing, " and no ") + " now, " +
                (present.empty() ? "nor any other" : "only " + joined(present)) +
                ". Nothing was changed; --allow-missing sets up an interface that comes later");
}

void setUpGateway(Session& session, const std::vector<std::string>& internal,
                  const std::string& external, Missing missing, Disconnect disconnect) {
  std::vector<Wanted> wanted = listOf(internal, external);
  Router& router = session.router();
  const std::vector<Interface> present = router.interfaces();
  if (missing == Missing::refused) requirePresent(namesOf(wanted), present);

  const std::vector<GatewayObject> objects = router.gatewayObjects();
  Settings settings = router.settings();
  const bool isNew = !settings.enabled && objects.empty();
  if (isNew && settings.allowDisableExternal && disconnect != Disconnect::allowed) {
    writeDisconnect(session, settings, external, false);
  }
  keepNames(session, present, wanted);
  removeOthers(session, present, objects, wanted);
  for (const Wanted& w : wanted) addOrSet(session, objects, w);

  if (!settings.allowDisableExternal && disconnect == Disconnect::allowed) {
    writeDisconnect(session, settings, external, true);
  }
  if (!settings.enabled) {
    settings.enabled = true;
    router.writeSettings(settings);
    session.done("gateway: switched on");
  }
  if (session.json) return;
  if (settings.allowDisableExternal && disconnect != Disconnect::allowed) {
    session.out() << "As before, programs on the LAN can take " << external
                  << " down and up. To end that: lumenctl upnp settings set "
                     "allow-disable-external=off\n";
  }
  session.out() << "The gateway is set up. See it work: lumenctl status\n";
}

}  // namespace lumenctl
