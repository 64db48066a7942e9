#pragma once

#include <cstdint>
#include <string>

/// The first of the URLs in a CALLBACK field, each of which is between "<" and ">" (UPnP Device
/// Architecture 1.0, section 4.1.1); empty when the field is malformed.
[[nodiscard]] std::string firstCallback(const std::string& field);

/// Takes a callback URL apart: `address` and `port` (both in network byte order) and `path`, which
/// begins with "/". A host name is looked up by the platform's resolver, which can take six
/// seconds. False, and the outputs unspecified, when it is no "http://" URL with a path, holds
/// control characters, which would break the lines of a NOTIFY, or when its host has no address.
[[nodiscard]] bool parseCallbackUrl(std::string url, uint32_t& address, uint16_t& port,
                                    std::string& path);
