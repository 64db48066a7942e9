#pragma once

#include <cstdint>
#include <string>

// IPv4 addresses in network byte order, as inet_addr gives them and inet_ntoa takes them.

/// What strtoip gives for a text that writes no address.
inline constexpr uint32_t noAddress = 0xFFFFFFFF;

/// The address that `text` writes in dotted form; noAddress when it writes none.
[[nodiscard]] uint32_t strtoip(const std::string& text);
[[nodiscard]] std::string iptostr(uint32_t address);
/// The address as the number that a big-endian machine sees, which is what it is sorted and logged
/// by on every machine.
[[nodiscard]] uint32_t iptonumber(uint32_t address);
