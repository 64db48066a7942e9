#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "upnp/VarType.h"

/// Computes the value of a variable when it is read.
using MethodCallback = std::function<std::string()>;

/// A container of strings, in the order of the arguments: `makeContainer("TCP", "UDP")`.
template <typename Container = std::vector<std::string>, std::convertible_to<std::string>... Text>
[[nodiscard]] Container makeContainer(Text... texts) {
  return Container{std::string(texts)...};
}

/// A state variable of a service: its type, its allowed values, and its value, which is either
/// stored or computed by a getter at each read. The owning service reads and writes the fields
/// directly.
struct Variable {
  Variable(VarType variableType, bool sendsEvents);
  /// A VAR_STRING that holds one of `allowedValues`, or any text when there are none.
  Variable(std::vector<std::string> allowedValues, bool sendsEvents);

  /// Stores the value and drops the getter.
  void setValue(std::string newValue);
  /// Makes `(owner->*method)()` the getter. `owner` must outlive the variable.
  template <typename Owner>
  void setValue(Owner* owner, std::string (Owner::*method)());
  /// Removes the value and the getter.
  void clearValue();

  /// Reads the value into `out`. Returns false, with `out` unchanged, when there is none.
  [[nodiscard]] bool getValue(std::string& out) const;

  /// Whether an action's argument may have this text. A number is checked after a conversion by the
  /// rules of `strtoul`, base 10, for an `unsigned long` of 32 bits: blanks and a sign may precede
  /// it, a minus sign wraps, a number too large becomes 4294967295, and an empty text is 0. Any
  /// character after the number makes it invalid.
  [[nodiscard]] bool isValid(const std::string& text) const;

  bool evented;  ///< sends events on change
  VarType type;
  bool hasRange = false;  ///< rangeMin and rangeMax, both inclusive, apply
  uint32_t rangeMin = 0;
  uint32_t rangeMax = 0;
  std::vector<std::string> allowed;  ///< of a VAR_STRING; empty: any
  bool hasValue = false;
  std::string value;      ///< not used while there is a getter
  MethodCallback getter;  ///< may be none
};

template <typename Owner>
void Variable::setValue(Owner* owner, std::string (Owner::*method)()) {
  hasValue = true;
  getter = [owner, method] { return (owner->*method)(); };
}
