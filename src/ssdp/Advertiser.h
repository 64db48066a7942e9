#pragma once

#include <cstdint>
#include <string>

#include "description/UpnpDevice.h"
#include "http/HTTPMessage.h"

/// How long an advertisement is valid, in seconds.
inline constexpr unsigned int MAX_AGE = 3600;

/// The interval between bursts of advertisements, in hundredths of a second: thirty seconds less
/// than their validity.
inline constexpr uint32_t ADVERT_INTERVAL = 357000;

/// The NOTIFY that announces (ssdp:alive) or withdraws (ssdp:byebye) `target` under the unique
/// service name `usn`. `address` is the interface's, in network byte order.
[[nodiscard]] HTTPMessage advert(uint32_t address, const std::string& target,
                                 const std::string& usn, bool byebye);

/// Sends one burst, a datagram for each target in order, from the discovery socket of the interface
/// with that address (network byte order). Failures to send are logged. Does not block.
void sendAdverts(int discoverySocket, uint32_t address, const SearchTargets& targets, bool byebye);
