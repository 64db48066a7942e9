#include "lumen/runtime/Fields.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "platform/Keys.h"

namespace lm {

const Value* message::Fields::find(uint32_t key) const {
  auto found = std::find_if(fields_.begin(), fields_.end(),
                            [key](const Field& field) { return field.key == key; });
  return found == fields_.end() ? nullptr : &found->value;
}

Value* message::Fields::find(uint32_t key) {
  auto found = std::find_if(fields_.begin(), fields_.end(),
                            [key](const Field& field) { return field.key == key; });
  return found == fields_.end() ? nullptr : &found->value;
}

Value& message::Fields::set(uint32_t key, Value value) {
  if (Value* present = find(key)) {
    *present = std::move(value);
    return *present;
  }
  return fields_.emplace_back(Field{key, std::move(value)}).value;
}

void message::Fields::erase(uint32_t key) {
  std::erase_if(fields_, [key](const Field& field) { return field.key == key; });
}

bool isTransportField(uint32_t key) { return (key & ~type::mask & ~uint32_t{0xffff}) == 0xff0000; }

message withoutTransportFields(const message& m) {
  message result;
  for (const Field& field : m.fields()) {
    if (!isTransportField(field.key)) result.fields().append(field.key, field.value);
  }
  return result;
}

lumen::Result<void> checkFields(const message& request, std::span<const uint32_t> known) {
  for (const Field& field : request.fields()) {
    if (isTransportField(field.key) || std::ranges::count(known, field.key) > 0) continue;
    char text[64];
    std::snprintf(text, sizeof text, "field 0x%08" PRIx32 " is not known here", field.key);
    return lumen::Failure{text};
  }
  return {};
}

message makeRecord(uint32_t id, const message& config) {
  message record;
  record.insert_u32(key::objectId, id);
  for (const Field& field : config.fields()) {
    if (field.key != key::objectId) record.fields().append(field.key, field.value);
  }
  return record;
}

}  // namespace lm
