// Datagrams of the platform's messages: what is taken for a message is written with the same bytes,
// and can be read with every accessor.

#include <algorithm>
#include <string>
#include <variant>
#include <vector>

#include "fuzz/Fuzz.h"
#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"

namespace {

using fuzz::require;

int depthOf(const lm::message& m) {
  int deepest = 0;
  for (const lm::Field& field : m.fields()) {
    if (const auto* inner = std::get_if<lm::message>(&field.value)) {
      deepest = std::max(deepest, 1 + depthOf(*inner));
    }
    if (const auto* inner = std::get_if<std::vector<lm::message>>(&field.value)) {
      for (const lm::message& element : *inner) deepest = std::max(deepest, 1 + depthOf(element));
    }
  }
  return deepest;
}

/// Reads the field by every accessor, of which those for other types must find nothing.
void checkAccessors(const lm::message& m, uint32_t key) {
  const auto none = [&](uint32_t type) {
    return m.fields().find((key & ~lm::type::mask) | type) == nullptr;
  };
  require(!none(key & lm::type::mask), "every field is found");
  require(m.get_bool(key, true) || !none(lm::type::boolean), "an absent bool is absent");
  require(m.get_u32(key, 7) == 7 || !none(lm::type::u32), "an absent u32 is absent");
  require(m.get_u64(key, 7) == 7 || !none(lm::type::u64), "an absent u64 is absent");
  require(m.get_string(key, "7") == "7" || !none(lm::type::string), "an absent string is absent");
  require(lm::encode(m.get_message(key)).empty() || !none(lm::type::message),
          "an absent message is absent");
  require(m.get_u32_array_ref(key).empty() || !none(lm::type::u32 | lm::type::arrayFlag),
          "an absent array is absent");
  require(m.get_message_array_ref(key).size() == m.size_message_array(key),
          "an array has its size");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view datagram = fuzz::text(data, size);
  const auto m = lm::decode(datagram);
  if (!m) {
    require(!m.why().empty(), "a refusal has a reason");
    return 0;
  }
  require(lm::encode(*m) == datagram, "a message is written with the bytes that it was read from");
  require(depthOf(*m) <= lm::maxNesting, "nesting is bounded");
  for (const lm::Field& field : m->fields()) checkAccessors(*m, field.key);

  const lm::message content = lm::withoutTransportFields(*m);
  for (const lm::Field& field : content.fields()) {
    require(!lm::isTransportField(field.key), "the content has no transport fields");
  }
  const std::string said = lm::encode(content);
  if (said.empty()) return 0;
  const auto again = lm::decode(said);
  require(again && lm::encode(*again) == said, "the content is a message");
  return 0;
}
