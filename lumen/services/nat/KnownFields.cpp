#include "lumen/services/nat/KnownFields.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "lumen/runtime/Fields.h"

namespace lumen {

Result<void> checkFields(const lm::message& request, std::span<const uint32_t> known) {
  for (const lm::Field& field : request.fields()) {
    if (lm::isTransportField(field.key) || std::ranges::count(known, field.key) > 0) continue;
    char text[64];
    std::snprintf(text, sizeof text, "field 0x%08" PRIx32 " is not known here", field.key);
    return Failure{text};
  }
  return {};
}

}  // namespace lumen
