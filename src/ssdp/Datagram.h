#pragma once

#include <netinet/in.h>

#include <string>

#include "http/HTTPMessage.h"

/// The HOST field of every SSDP request: the group and its port.
[[nodiscard]] std::string ssdpHost();

/// Adds "CACHE-CONTROL": how long `message` is valid.
void addMaxAge(HTTPMessage& message);

/// Adds "LOCATION": the URL of the gateway's description on the interface with that address
/// (network byte order).
void addLocation(HTTPMessage& message, uint32_t address);

/// Sends `message` as one datagram without blocking. Returns 0, or the error number (errno(3)) on
/// failure: errno itself may have changed when the caller reads it.
[[nodiscard]] int sendDatagram(int socket, const HTTPMessage& message, const sockaddr_in& to);
