#pragma once

#include <cstdint>
#include <string>

/// The first URL in a CALLBACK field, where each URL stands between "<" and ">" (UPnP Device
/// Architecture 1.0, section 4.1.1). Empty when the field is malformed.
[[nodiscard]] std::string firstCallback(const std::string& field);

/// Splits a callback URL into `address` and `port` (both in network byte order) and `path`, which
/// begins with "/". A dotted address is used directly, 0.0.0.0 included. Any other host is a name
/// for the platform's resolver, which can take six seconds. Returns false, with unspecified
/// outputs, when the URL is no "http://" URL with a path, when it holds control characters, which
/// would break the lines of a NOTIFY, or when the resolver finds no address other than 0.0.0.0.
[[nodiscard]] bool parseCallbackUrl(std::string url, uint32_t& address, uint16_t& port,
                                    std::string& path);
