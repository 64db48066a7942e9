#include "lumen/ctl/machine/PacketFilter.h"

#include <netinet/in.h>
// After netinet/in.h, whose types it uses.
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/xt_conntrack.h>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumenctl {

bool ForwardChain::stopsOpenPorts() const {
  if (acceptsOpenPortsElsewhere) return false;
  for (const RuleEffect effect : rules) {
    if (effect == RuleEffect::dropsAll) return true;
    if (effect != RuleEffect::unknown) return false;
  }
  return dropsAtEnd;
}

bool matchesOpenPorts(std::string_view match, uint32_t revision, std::span<const std::byte> info) {
  // From the second revision on the masks of states lie in the same place.
  if (match != "conntrack" || revision < 2) return false;
  const auto parameters = lumen::readStruct<xt_conntrack_mtinfo2>(info);
  return parameters && (parameters->match_flags & XT_CONNTRACK_STATE) != 0 &&
         (parameters->invert_flags & XT_CONNTRACK_STATE) == 0 &&
         (parameters->state_mask & XT_CONNTRACK_STATE_DNAT) != 0;
}

}  // namespace lumenctl
