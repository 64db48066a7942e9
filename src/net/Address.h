#pragma once

#include <cstdint>
#include <string>

// IPv4 addresses in network byte order, as inet_addr gives them.

/// What strtoip returns for a text that is no address.
inline constexpr uint32_t noAddress = 0xFFFFFFFF;

/// Parses dotted decimal; noAddress when `text` is no address.
[[nodiscard]] uint32_t strtoip(const std::string& text);
[[nodiscard]] std::string iptostr(uint32_t address);
/// The address as a big-endian machine reads it. Addresses are sorted and logged by this number, on
/// every machine.
[[nodiscard]] uint32_t iptonumber(uint32_t address);
