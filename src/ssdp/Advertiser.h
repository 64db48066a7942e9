#pragma once

#include <cstdint>
#include <string>

#include "description/UpnpDevice.h"
#include "http/HTTPMessage.h"

/// How long an advertisement holds, in seconds.
inline constexpr unsigned int MAX_AGE = 3600;

/// Time between two bursts of advertisements, in hundredths of a second: thirty seconds short of
/// the time that they hold.
inline constexpr uint32_t ADVERT_INTERVAL = 357000;

/// The NOTIFY that announces (ssdp:alive) or takes back (ssdp:byebye) what is found under `target`
/// with the unique service name `usn`. `address` is the interface's, in network byte order.
[[nodiscard]] HTTPMessage advert(uint32_t address, const std::string& target,
                                 const std::string& usn, bool byebye);

/// Sends one burst, a datagram for each target in their order, from the discovery socket of the
/// interface with that address (network byte order). What cannot be sent is logged; it waits for
/// nothing.
void sendAdverts(int discoverySocket, uint32_t address, const SearchTargets& targets, bool byebye);
