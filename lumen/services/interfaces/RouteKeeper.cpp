#include "lumen/services/interfaces/RouteKeeper.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "platform/wire/Interfaces.h"

namespace lumen {
namespace {

constexpr const char* notSaved = "the link's routes could not be saved";

constexpr uint32_t routesKey = 0xa8000001;  // message array
constexpr uint32_t linkKey = 0x08000001;
constexpr uint32_t gatewayKey = 0x00000002;
constexpr uint32_t contentKey = 0x20000003;

/// What the fields of a saved route take beside its content.
constexpr size_t overhead = 32;

lm::message toMessage(const Route& route) {
  lm::message m;
  m.insert_u32(linkKey, route.link);
  m.insert_bool(gatewayKey, route.gateway);
  m.insert_string(contentKey, route.content);
  return m;
}

Route toRoute(const lm::message& m) {
  return {m.get_u32(linkKey), m.get_bool(gatewayKey), m.get_string(contentKey)};
}

/// Shortens `routes` to what fits into a record; returns how many had to go.
size_t cutToRecord(std::vector<Route>& routes) {
  size_t bytes = 0;
  const auto fits = [&](const Route& route) {
    bytes += route.content.size() + overhead;
    return bytes <= RouteKeeper::maxBytes;
  };
  const auto end = std::find_if_not(routes.begin(), routes.end(), fits);
  const auto tooMany = static_cast<size_t>(routes.end() - end);
  routes.erase(end, routes.end());
  return tooMany;
}

}  // namespace

RouteKeeper::RouteKeeper(Links& links, lm::Store& store, const lm::Clock& clock)
    : links_(links), store_(store), clock_(clock) {
  for (uint32_t record = 1; record < records; ++record) load(record);
}

RouteKeeper::~RouteKeeper() { clearSettled(clock_.now()); }

Result<void> RouteKeeper::takeDown(const std::string& name, uint32_t index) {
  auto now = links_.routes(index);
  if (!now) return now.failure();
  // Those of an earlier time that are not back yet remain: the link may be up without running.
  std::vector<Route> before = missing(name);
  for (const Route& route : before) {
    if (std::find(now->begin(), now->end(), route) == now->end()) now->push_back(route);
  }
  // They are restored in this order: a gateway is reached by a route without one.
  std::stable_partition(now->begin(), now->end(), [](const Route& r) { return !r.gateway; });
  const size_t lost = cutToRecord(*now);
  if (auto saved = save(name, std::move(*now)); !saved) return saved;
  if (auto down = links_.setUp(index, false); !down) {
    if (before.empty()) {
      settle(name);
    } else {
      (void)save(name, std::move(before));
    }
    return down;
  }
  if (lost > 0) lm::logLine("interface ", name, ": ", lost, " routes too many to save");
  return {};
}

void RouteKeeper::restore(const std::string& name, uint32_t index) {
  std::vector<Route> open = missing(name);
  if (open.empty()) return;
  const auto runs = [&] {
    const auto now = links_.read(index);
    return now && now->link.running && now->link.name == name;
  };
  if (!runs()) return;
  // A route may need any other one: each round that restored one gives the rest another chance.
  std::map<int, size_t> refused;  // errno -> routes
  for (bool progress = true; progress && !open.empty();) {
    refused.clear();
    const auto settled = [&](const Route& route) {
      const int error = links_.addRoute(route, index);
      if (error == 0 || error == EEXIST) return true;
      ++refused[error];
      return false;
    };
    progress = std::erase_if(open, settled) > 0;
  }
  // The link stopped meanwhile: the kernel has dropped the restored routes too. They are tried
  // again when it next runs.
  if (!runs()) return;
  for (const auto& [error, count] : refused) {
    lm::logLine("interface ", name, ": ", count, " saved routes not put back: ", strerror(error));
  }
  if (refused.contains(EIO)) {
    (void)save(name, std::move(open));
  } else {
    settle(name);
  }
}

void RouteKeeper::forget(const std::string& name) {
  if (saved_.contains(name)) (void)save(name, {});
}

void RouteKeeper::forgetAllBut(const std::function<bool(const std::string& name)>& remains) {
  std::vector<std::string> gone;
  for (const auto& [name, saved] : saved_) {
    if (!remains(name)) gone.push_back(name);
  }
  for (const std::string& name : gone) forget(name);
}

Result<void> RouteKeeper::save(const std::string& name, std::vector<Route> routes) {
  const auto saved = saved_.find(name);
  if (saved == saved_.end() && routes.empty()) return {};
  if (saved != saved_.end() && saved->second.routes == routes) {
    saved->second.backSince.reset();
    return {};
  }
  const uint32_t record = saved == saved_.end() ? freeRecord() : saved->second.record;
  if (record == 0) {
    lm::logLine("interfaces: too many links with saved routes");
    return Failure{notSaved};
  }
  std::vector<lm::message> list;
  list.reserve(routes.size());
  for (const Route& route : routes) list.push_back(toMessage(route));
  lm::message m;
  m.insert_string(lm::interfaces::key::name, list.empty() ? std::string() : name);
  m.insert_message_array(routesKey, std::move(list));
  const bool stored = store_.set(record, m);
  if (routes.empty()) {
    saved_.erase(saved);
  } else if (stored) {
    saved_[name] = {record, std::move(routes), std::nullopt};
  }
  if (!stored) return Failure{notSaved};
  return {};
}

void RouteKeeper::settle(const std::string& name) {
  const auto saved = saved_.find(name);
  if (saved == saved_.end()) return;
  saved->second.backSince = clock_.now();
  if (!clearing_.pending()) scheduleClearing();
}

std::vector<Route> RouteKeeper::missing(const std::string& name) const {
  const auto saved = saved_.find(name);
  if (saved == saved_.end() || saved->second.backSince) return {};
  return saved->second.routes;
}

void RouteKeeper::clearSettled(lm::Clock::Time time) {
  std::vector<std::string> settled;
  for (const auto& [name, saved] : saved_) {
    if (saved.backSince && *saved.backSince <= time) settled.push_back(name);
  }
  for (const std::string& name : settled) (void)save(name, {});
}

void RouteKeeper::clearOld() {
  clearSettled(clock_.now() - afterlife);
  scheduleClearing();
}

void RouteKeeper::scheduleClearing() {
  std::optional<lm::Clock::Time> first;
  for (const auto& [name, saved] : saved_) {
    if (saved.backSince) first = std::min(first.value_or(*saved.backSince), *saved.backSince);
  }
  if (!first) return;
  const lm::Clock::Time now = clock_.now();
  clearing_.start<&RouteKeeper::clearOld>(*this,
                                          timerDelay(std::max(*first + afterlife, now) - now));
}

uint32_t RouteKeeper::freeRecord() {
  std::set<uint32_t> used;
  for (const auto& [name, saved] : saved_) used.insert(saved.record);
  for (uint32_t record = 1; record < records; ++record) {
    if (!used.contains(record)) return record;
  }
  const auto settled = std::find_if(saved_.begin(), saved_.end(),
                                    [](const auto& item) { return item.second.backSince; });
  if (settled == saved_.end()) return 0;
  const uint32_t record = settled->second.record;
  saved_.erase(settled);
  return record;
}

void RouteKeeper::load(uint32_t record) {
  const auto stored = store_.get(record);
  if (!stored) return;
  const std::string name = stored->get_string(lm::interfaces::key::name);
  if (name.empty() || saved_.contains(name)) return;
  Saved saved{record, {}, std::nullopt};
  for (const lm::message& m : stored->get_message_array_ref(routesKey)) {
    saved.routes.push_back(toRoute(m));
  }
  if (!saved.routes.empty()) saved_[name] = std::move(saved);
}

}  // namespace lumen
