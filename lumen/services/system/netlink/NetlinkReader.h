#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Result.h"

namespace lumen {

/// An rtnetlink message of a kind that we use.
struct NetlinkMessage {
  struct LinkIs {
    LinkStatus status;
  };
  struct LinkGone {
    uint32_t index = 0;
  };
  struct AddressIs {
    uint32_t index = 0;
    LinkAddress address;
  };
  struct AddressGone {
    uint32_t index = 0;
    LinkAddress address;
  };
  struct Ipv6AddressIs {
    uint32_t index = 0;
    Ipv6LinkAddress address;
  };
  struct Ipv6AddressGone {
    uint32_t index = 0;
    Ipv6LinkAddress address;
  };
  struct RouteIs {
    uint32_t family = 0;          ///< AF_INET or AF_INET6
    bool kernelMade = false;      ///< the kernel adds and removes it itself
    bool gateway = false;         ///< as Route::gateway
    std::vector<uint32_t> links;  ///< kernel indexes of the links of its next hops
    std::string content;          ///< as Route::content
  };
  /// The end of the answer to a request: of a dump, or an acknowledgement, or an error.
  struct Answered {
    int error = 0;  ///< errno, 0: done
  };

  uint32_t sequence = 0;     ///< of the request that this answers, or that made this change
  uint32_t port = 0;         ///< of the socket that sent that request; 0: none
  bool interrupted = false;  ///< the dump that it belongs to has missed changes
  std::variant<LinkIs, LinkGone, AddressIs, AddressGone, Ipv6AddressIs, Ipv6AddressGone, RouteIs,
               Answered>
      what;
};

/// The messages in one datagram from rtnetlink (linux/netlink.h, linux/rtnetlink.h). Messages of
/// other kinds and families, such as the bridge's own messages about its ports, are skipped.
/// Fails, with a few words for the log, when the datagram is malformed: a length that does not
/// fit, a fixed part or an attribute that is too short, a missing attribute. `datagram` must be
/// aligned as a nlmsghdr is.
[[nodiscard]] Result<std::vector<NetlinkMessage>> readNetlink(std::span<const std::byte> datagram);

}  // namespace lumen
