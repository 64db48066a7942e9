#pragma once

#include <cstdint>
#include <string>

// How the gateway identifies its server in HTTP messages and announcements.

/// The SERVER field of every message (UPnP Device Architecture 1.0 section 1.1.2). Initialised
/// before main runs.
extern const std::string SERVER_STRING;

/// The TCP port that is served, advertised and accepted in HOST fields.
inline constexpr uint16_t HTTP_PORT = 2828;

/// The path of the root device's description.
inline constexpr const char* DESCRIPTION_URL = "/gateway.xml";

/// "http://<address>:2828" for an address in network byte order.
[[nodiscard]] std::string serverUrl(uint32_t address);
