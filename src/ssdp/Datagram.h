#pragma once

#include <netinet/in.h>

#include <string>

#include "http/HTTPMessage.h"

/// The HOST of every request of SSDP: the group and its port.
[[nodiscard]] std::string ssdpHost();

/// "CACHE-CONTROL": how long what is said in `message` holds.
void addMaxAge(HTTPMessage& message);

/// "LOCATION": where the description of the gateway is, on the interface with that address (network
/// byte order).
void addLocation(HTTPMessage& message, uint32_t address);

/// Sends `message` as one datagram, without waiting. 0, or the error number (errno(3)) that says
/// why it did not go out: errno itself may have changed when the caller looks.
[[nodiscard]] int sendDatagram(int socket, const HTTPMessage& message, const sockaddr_in& to);
