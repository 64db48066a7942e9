#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lm {

/// The longest datagram, in bytes.
inline constexpr size_t maxDatagram = 128UL * 1024;

/// How deep messages may be nested.
inline constexpr int maxNesting = 8;

/// The wire form: field after field, each its u32 key and its value, all integers big-endian. The
/// result may be longer than maxDatagram, which the sender must check.
[[nodiscard]] std::string encode(const message& m);

/// Decodes the wire form. Fails, with a few words for the log, on anything else: a datagram that is
/// empty, too long, truncated or nested too deep, an unknown type, a bool that is neither 0 nor 1,
/// a key twice.
[[nodiscard]] lumen::Result<message> decode(std::string_view datagram);

}  // namespace lm
