#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "upnp/VarType.h"

/// Makes the value of a variable at the moment it is read.
using MethodCallback = std::function<std::string()>;

/// A container of strings, in the order of the arguments: `makeContainer("TCP", "UDP")`.
template <typename Container = std::vector<std::string>, std::convertible_to<std::string>... Text>
[[nodiscard]] Container makeContainer(Text... texts) {
  return Container{std::string(texts)...};
}

/// A state variable of a service: its type, what it may hold, and its value, which is either stored
/// or made by a getter at each read. The owning service reads and writes the fields directly.
struct Variable {
  Variable(VarType variableType, bool sendsEvents);
  /// A VAR_STRING that may hold one of `allowedValues` only, or any text when there are none.
  Variable(std::vector<std::string> allowedValues, bool sendsEvents);

  /// Stores the value and drops the getter.
  void setValue(std::string newValue);
  /// From now on the value is what `(owner->*method)()` returns. `owner` must outlive the variable.
  template <typename Owner>
  void setValue(Owner* owner, std::string (Owner::*method)());
  /// Back to no value.
  void clearValue();

  /// Reads the value into `out`. False, and `out` untouched, when there is none.
  [[nodiscard]] bool getValue(std::string& out) const;

  /// Whether an argument of an action may have this text. Numbers are judged after a conversion
  /// with the rules of `strtoul`, base 10, for an `unsigned long` of 32 bits: blanks and a sign may
  /// lead, a minus sign wraps, too large a number becomes 4294967295, and nothing at all is 0. Any
  /// character behind the number makes it invalid.
  [[nodiscard]] bool isValid(const std::string& text) const;

  bool evented;  ///< sends events on change
  VarType type;
  bool hasRange = false;  ///< rangeMin and rangeMax, both inclusive, apply
  uint32_t rangeMin = 0;
  uint32_t rangeMax = 0;
  std::vector<std::string> allowed;  ///< of a VAR_STRING; empty: any
  bool hasValue = false;
  std::string value;      ///< not read while there is a getter
  MethodCallback getter;  ///< may be none
};

template <typename Owner>
void Variable::setValue(Owner* owner, std::string (Owner::*method)()) {
  hasValue = true;
  getter = [owner, method] { return (owner->*method)(); };
}
