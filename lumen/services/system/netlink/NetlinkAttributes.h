#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <span>

namespace lumen {

/// The offset of the next part after one of `length` bytes: messages, attributes and next hops are
/// all aligned to four bytes.
[[nodiscard]] constexpr size_t netlinkAligned(size_t length) { return (length + 3) & ~size_t{3}; }

/// Calls `visit` with each attribute in `bytes`, which must be aligned as an nlattr is. False when
/// the attributes do not fill `bytes`: those before the wrong length have been visited.
template <typename Visit>
[[nodiscard]] bool visitAttributes(std::span<const std::byte> bytes, Visit visit) {
  while (!bytes.empty()) {
    const auto* attribute = reinterpret_cast<const nlattr*>(bytes.data());
    if (!mnl_attr_ok(attribute, static_cast<int>(bytes.size()))) return false;
    visit(*attribute);
    const size_t step = netlinkAligned(attribute->nla_len);
    bytes = step < bytes.size() ? bytes.subspan(step) : std::span<const std::byte>();
  }
  return true;
}

[[nodiscard]] inline std::span<const std::byte> payload(const nlattr& attribute) {
  return {static_cast<const std::byte*>(mnl_attr_get_payload(&attribute)),
          mnl_attr_get_payload_len(&attribute)};
}

/// The value at the start of `bytes`; none when they are too few.
template <typename T>
[[nodiscard]] std::optional<T> readStruct(std::span<const std::byte> bytes) {
  if (bytes.size() < sizeof(T)) return std::nullopt;
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

}  // namespace lumen
