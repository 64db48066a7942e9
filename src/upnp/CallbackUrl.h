#pragma once

#include <cstdint>
#include <string>

/// The first of the URLs in a CALLBACK field, each of which is between "<" and ">" (UPnP Device
/// Architecture 1.0, section 4.1.1); empty when the field is malformed.
[[nodiscard]] std::string firstCallback(const std::string& field);

/// Takes a callback URL apart: `address` and `port` (both in network byte order) and `path`, which
/// begins with "/". A dotted address is taken as it is, 0.0.0.0 included; any other host is a name
/// that the platform's resolver looks up, which can take six seconds. False, and the outputs
/// unspecified, when it is no "http://" URL with a path, holds control characters, which would
/// break the lines of a NOTIFY, or when the resolver knows no address other than 0.0.0.0.
[[nodiscard]] bool parseCallbackUrl(std::string url, uint32_t& address, uint16_t& port,
                                    std::string& path);
