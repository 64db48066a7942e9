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

  /// Whether the object is persisted.
  [[nodiscard]] virtual bool isStorable() const { return true; }
  /// Whether the administrator can undo changes of it.
  [[nodiscard]] virtual bool isUndoable() const { return isStorable(); }
  /// Whether subscribers are notified of changes.
  [[nodiscard]] virtual bool needNotify() const { return true; }
  /// The administrator's name for this kind of object.
  [[nodiscard]] virtual std::string getName() const { return "item"; }

  /// Appends the object's fields to `config`.
  virtual void getConfig(message& config) const = 0;
  /// Takes the fields present in `config`; the others keep their values.
  virtual void setConfig(const message& config) = 0;

  uint32_t id = 0;  ///< assigned by the map; 0 until then
};

}  // namespace lm
