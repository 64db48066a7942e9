#include "lumen/ctl/commands/Differences.h"

#include <algorithm>
#include <map>
#include <utility>

#include "lumen/ctl/router/Router.h"
#include "lumen/ctl/router/SettingTable.h"
#include "lumen/ctl/text/Text.h"
#include "platform/Keys.h"

namespace lumenctl {

namespace {

using Json = nlohmann::ordered_json;

/// What is known of the gateway at one moment.
struct Knowledge {
  /// None: it has no such object.
  using Object = std::optional<GatewayObject>;

  std::optional<Settings> settings;  // none: not known
  std::map<uint32_t, Object> objects;
  bool knowsAllObjects = false;  // those that `objects` lacks do not exist

  /// None: not known.
  [[nodiscard]] std::optional<Object> object(uint32_t id) const {
    const auto found = objects.find(id);
    if (found != objects.end()) return found->second;
    return knowsAllObjects ? std::optional<Object>(std::in_place) : std::nullopt;
  }
};

class Explainer {
 public:
  explicit Explainer(const std::vector<Interface>& interfaces) {
    for (const Interface& interface : interfaces) names_[interface.id] = interface.name;
  }

  /// What `change` changed, which left the gateway as `state` says. Goes back to the state before
  /// it.
  std::vector<Difference> explain(const Change& change, Knowledge& state) const {
    if (change.service != lm::service::gateway || change.handler != 0) return {};
    if (change.undoCommand == lm::cmd::set) return explainSettings(change, state);
    const uint32_t id = change.undo.get_u32(lm::key::objectId, lm::none);
    const auto after = state.object(id);
    Knowledge::Object before;
    if (change.undoCommand == lm::cmd::addObject) {
      before.emplace(change.undo);
    } else if (change.undoCommand == lm::cmd::setObject) {
      if (after) before = *after;
      if (!before) before.emplace();
      before->apply(change.undo);
    } else if (change.undoCommand != lm::cmd::removeObject) {
      return {};
    }
    state.objects[id] = before;
    return compare(id, before, after);
  }

 private:
  static std::vector<Difference> explainSettings(const Change& change, Knowledge& state) {
    const std::optional<Settings> after = state.settings;
    Settings before = after.value_or(Settings());
    before.apply(change.undo);
    state.settings = before;
    std::vector<Difference> result;
    for (const Setting& setting : settingTable) {
      const Json value = after ? Json(*after.*setting.value) : Json();
      add(result, {"", setting.name, before.*setting.value, value});
    }
    return result;
  }

  [[nodiscard]] std::vector<Difference> compare(
      uint32_t id, const Knowledge::Object& before,
      const std::optional<Knowledge::Object>& after) const {
    std::string name = "object " + std::to_string(id);
    if (after && *after) name = nameOf((*after)->interfaceId);
    if (before) name = nameOf(before->interfaceId);
    std::vector<Difference> result;
    if (before && after && *after) {
      add(result, {name, "interface", name, nameOf((*after)->interfaceId)});
    }
    add(result, {name, "role", role(before), after ? Json(role(*after)) : Json()});
    add(result, {name, "used", isUsed(before), after ? Json(isUsed(*after)) : Json()});
    return result;
  }

  static void add(std::vector<Difference>& differences, Difference difference) {
    if (difference.before != difference.after) differences.push_back(std::move(difference));
  }

  static std::string role(const Knowledge::Object& object) {
    const std::string name = object ? roleName(object->role) : "";
    return name.empty() ? "none" : name;
  }

  static bool isUsed(const Knowledge::Object& object) { return object && !object->disabled; }

  [[nodiscard]] std::string nameOf(uint32_t interfaceId) const {
    const auto found = names_.find(interfaceId);
    return found == names_.end() ? "interface " + std::to_string(interfaceId) : found->second;
  }

  std::map<uint32_t, std::string> names_;  // by id
};

}  // namespace

std::vector<std::vector<Difference>> differences(const std::vector<Change>& history,
                                                 const std::optional<GatewayConfiguration>& now,
                                                 const std::vector<Interface>& interfaces) {
  Knowledge state;
  if (now) {
    state.settings = now->settings;
    for (const GatewayObject& object : now->objects) state.objects[object.id] = object;
    state.knowsAllObjects = true;
  }
  const Explainer explainer(interfaces);
  std::vector<std::vector<Difference>> result(history.size());
  for (size_t i = history.size(); i-- > 0;) {
    Knowledge before = state;
    result[i] = explainer.explain(history[i], before);
    // Ids that are missing below this one are changes that were undone, each by the one after it:
    // the change with the highest of the ids is the last undo. With an odd number of them it led
    // back to the state before the first.
    const uint32_t undone = i == 0 ? 0 : history[i].id - history[i - 1].id - 1;
    if (undone % 2 == 0) state = std::move(before);
  }
  return result;
}

std::string valueText(const Difference& difference, const nlohmann::ordered_json& value) {
  if (value.is_null()) return "?";
  if (value.is_string()) return value.get<std::string>();
  return difference.interface.empty() ? onOrOff(value.get<bool>()) : yesOrNo(value.get<bool>());
}

}  // namespace lumenctl
