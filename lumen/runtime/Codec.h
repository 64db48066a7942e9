#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lm {

/// The longest datagram, in bytes.
inline constexpr size_t maxDatagram = 128UL * 1024;

/// How deep messages may lie in messages.
inline constexpr int maxNesting = 8;

/// The wire form: field after field, each its u32 key and its value, all integers big-endian.
/// The result may be longer than a datagram can be; whoever sends it checks.
[[nodiscard]] std::string encode(const message& m);

/// The message that `datagram` is the wire form of. Fails, with a few words for the log, when it is
/// anything else: empty, too long, truncated, with an unknown type, a bool that is neither 0 nor 1,
/// a key twice, nested too deep.
[[nodiscard]] lumen::Result<message> decode(std::string_view datagram);

}  // namespace lm
