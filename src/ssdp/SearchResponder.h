#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "description/UpnpDevice.h"
#include "http/HTTPMessage.h"

/// One M-SEARCH that is to be answered.
struct SearchRequest {
  std::string target;  ///< what it looks for: a search target or "ssdp:all"
  sockaddr_in sender = {};
};

/// What `datagram` looks for, if it is a well-formed M-SEARCH (UPnP Device Architecture 1.0 section
/// 1.2.2); none otherwise.
[[nodiscard]] std::optional<std::string> parseSearch(std::string_view datagram);

/// The first of the entries of `targets` that a search for `target` finds, and the end behind the
/// last: all of them for "ssdp:all".
[[nodiscard]] std::pair<SearchTargets::const_iterator, SearchTargets::const_iterator> findTargets(
    const SearchTargets& targets, const std::string& target);

/// The reply for one entry of the search targets. `address` is the interface's, in network byte
/// order.
[[nodiscard]] HTTPMessage searchReply(uint32_t address, const std::string& target,
                                      const std::string& usn);

/// Takes one datagram from a discovery socket that is ready. None when it is no search, or when
/// there was nothing to take, which is logged.
[[nodiscard]] std::optional<SearchRequest> receiveSearch(int discoverySocket);

/// Sends a reply for every entry of `targets` that `request` looks for, from a new socket on the
/// device `ifname`, whose IPv4 address is `address` (network byte order). What cannot be sent is
/// logged; it waits for nothing.
void answerSearch(const SearchRequest& request, const std::string& ifname, uint32_t address,
                  const SearchTargets& targets);
