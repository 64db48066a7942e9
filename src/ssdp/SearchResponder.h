#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "description/UpnpDevice.h"
#include "http/HTTPMessage.h"

/// An M-SEARCH to answer.
struct SearchRequest {
  std::string target;  ///< a search target or "ssdp:all"
  sockaddr_in sender = {};
};

/// The target of `datagram` if it is a well-formed M-SEARCH (UPnP Device Architecture 1.0 section
/// 1.2.2); otherwise none.
[[nodiscard]] std::optional<std::string> parseSearch(std::string_view datagram);

/// The range of the entries of `targets` that match a search for `target`: all of them for
/// "ssdp:all".
[[nodiscard]] std::pair<SearchTargets::const_iterator, SearchTargets::const_iterator> findTargets(
    const SearchTargets& targets, const std::string& target);

/// The reply for one entry of the search targets. `address` is the interface's, in network byte
/// order.
[[nodiscard]] HTTPMessage searchReply(uint32_t address, const std::string& target,
                                      const std::string& usn);

/// Receives one datagram from a discovery socket that is ready. None when it is no search, or,
/// after a log line, when nothing could be received.
[[nodiscard]] std::optional<SearchRequest> receiveSearch(int discoverySocket);

/// Sends a reply for every entry of `targets` that matches `request`, from a new socket on the
/// device `ifname` with the IPv4 address `address` (network byte order). Failures to send are
/// logged. Does not block.
void answerSearch(const SearchRequest& request, const std::string& ifname, uint32_t address,
                  const SearchTargets& targets);
