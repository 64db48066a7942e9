#include "upnp/Variable.h"

#include <algorithm>
#include <optional>

#include "base/Text.h"

Variable::Variable(VarType variableType, bool sendsEvents)
    : evented(sendsEvents), type(variableType) {}

Variable::Variable(std::vector<std::string> allowedValues, bool sendsEvents)
    : evented(sendsEvents), type(VAR_STRING), allowed(std::move(allowedValues)) {}

void Variable::setValue(std::string newValue) {
  hasValue = true;
  getter = nullptr;
  value = std::move(newValue);
}

void Variable::clearValue() {
  hasValue = false;
  getter = nullptr;
  value.clear();
}

bool Variable::getValue(std::string& out) const {
  if (!hasValue) return false;
  out = getter ? getter() : value;
  return true;
}

bool Variable::isValid(const std::string& text) const {
  switch (type) {
    case VAR_STRING:
      return allowed.empty() || std::ranges::find(allowed, text) != allowed.end();
    case VAR_BOOLEAN:
      return text == "1" || text == "0" || text == "true" || text == "false" || text == "yes" ||
             text == "no";
    case VAR_UI4:
    case VAR_UI2:
      break;
    default:
      return false;
  }
  const std::optional<uint32_t> number = parseUint(text);
  if (!number) return false;
  if (hasRange && (*number < rangeMin || *number > rangeMax)) return false;
  return type == VAR_UI4 || *number < 65536;
}
