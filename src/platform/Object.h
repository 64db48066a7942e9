#pragma once

#include <cstdint>
#include <string>

#include "platform/message.h"

namespace lm {

/// One entry of an object map.
class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  /// Whether the object survives the end of the program.
  [[nodiscard]] virtual bool isStorable() const { return true; }
  /// Whether the administrator can take changes of it back.
  [[nodiscard]] virtual bool isUndoable() const { return isStorable(); }
  /// Whether subscribers are told of changes.
  [[nodiscard]] virtual bool needNotify() const { return true; }
  /// What an administrator calls such an object.
  [[nodiscard]] virtual std::string getName() const { return "item"; }

  /// Appends the object's fields to `config`.
  virtual void getConfig(message& config) const = 0;
  /// Takes the fields that `config` has; the others keep their values.
  virtual void setConfig(const message& config) = 0;

  uint32_t id = 0;  ///< given by the map; 0 before
};

}  // namespace lm
