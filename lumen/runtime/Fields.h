#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lm {

/// The five type bits of a key, at their place.
namespace type {
inline constexpr uint32_t boolean = 0x00000000;
inline constexpr uint32_t u32 = 0x08000000;
inline constexpr uint32_t u64 = 0x10000000;
inline constexpr uint32_t string = 0x20000000;
inline constexpr uint32_t message = 0x28000000;
inline constexpr uint32_t arrayFlag = 0x80000000;
inline constexpr uint32_t mask = 0xF8000000;
}  // namespace type

/// The value of a field; which alternative it holds follows from the type bits of its key. IPv4
/// addresses are u32 values like any other: the number that their four bytes make in network order.
using Value = std::variant<bool, uint32_t, uint64_t, std::string, message, std::vector<bool>,
                           std::vector<uint32_t>, std::vector<uint64_t>, std::vector<std::string>,
                           std::vector<message>>;

struct Field {
  uint32_t key = 0;
  Value value;
};

/// The fields of a message in insertion order. Keys are complete, type bits included.
class message::Fields {
 public:
  using const_iterator = std::vector<Field>::const_iterator;

  [[nodiscard]] const_iterator begin() const { return fields_.begin(); }
  [[nodiscard]] const_iterator end() const { return fields_.end(); }

  /// The field's value, or null. Valid until the fields change.
  [[nodiscard]] const Value* find(uint32_t key) const;
  [[nodiscard]] Value* find(uint32_t key);
  /// Appends the field, or replaces its value in place; returns the value's place.
  Value& set(uint32_t key, Value value);
  /// Appends a field whose key is not present yet.
  void append(uint32_t key, Value value) { fields_.push_back({key, std::move(value)}); }
  /// Does nothing when the field is absent.
  void erase(uint32_t key);

 private:
  std::vector<Field> fields_;
};

/// Whether a field belongs to the transport of a message and not to its content: the paths, the
/// serial, the command, the error.
[[nodiscard]] bool isTransportField(uint32_t key);

/// The content of `m`: its fields without those of the transport.
[[nodiscard]] message withoutTransportFields(const message& m);

/// Fails, naming the field, if `request` has a field that is not in `known`. Transport fields are
/// ignored. An unknown field may be a condition: a rule without it would open more than the
/// requester intended.
[[nodiscard]] lumen::Result<void> checkFields(const message& request,
                                              std::span<const uint32_t> known);

/// The record of the object `id`: its id, then the fields of `config`.
[[nodiscard]] message makeRecord(uint32_t id, const message& config);

}  // namespace lm
