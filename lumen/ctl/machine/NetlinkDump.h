#pragma once

#include <libmnl/libmnl.h>

#include <functional>

namespace lumenctl {

/// How the dump of a table of the kernel's ended.
enum class Dumped {
  completely,
  inconsistently,  ///< the table changed during the dump
  failed,
};

/// Sends `request` (NLM_F_DUMP) over a netlink socket of its own on `bus` (NETLINK_*) and calls
/// `take` for each message of the answer.
[[nodiscard]] Dumped dumpNetlink(int bus, const nlmsghdr& request,
                                 const std::function<void(const nlmsghdr&)>& take);

}  // namespace lumenctl
