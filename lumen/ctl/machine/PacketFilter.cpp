#include "lumen/ctl/machine/PacketFilter.h"

#include <netinet/in.h>
// After netinet/in.h, whose types it uses.
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/xt_connlabel.h>
#include <linux/netfilter/xt_conntrack.h>

#include <algorithm>
#include <array>
#include <climits>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumenctl {

namespace {

// That of etc/pinhole-ruleset.nft.
constexpr uint32_t pinholeLabel = 125;

}  // namespace

bool ForwardRule::holdsFor(const std::string& link) const {
  if (links.empty() || link.empty()) return true;
  const std::string name = link + '\0';
  return std::any_of(links.begin(), links.end(),
                     [&](const std::string& pattern) { return name.starts_with(pattern); });
}

bool ForwardChain::stopsOpenPorts(const std::string& link) const {
  return family != "ip6" && stops(RuleEffect::acceptsOpenPorts, link);
}

bool ForwardChain::stopsPinholes(const std::string& link) const {
  return family != "ip" && tool != Tool::iptablesLegacy && stops(RuleEffect::acceptsPinholes, link);
}

bool ForwardChain::stops(RuleEffect accepted, const std::string& link) const {
  const auto accepts = [&](const ForwardRule& rule) {
    return rule.effect == accepted && rule.holdsFor(link);
  };
  if (std::any_of(elsewhere.begin(), elsewhere.end(), accepts)) return false;
  for (const ForwardRule& rule : rules) {
    if (rule.effect == RuleEffect::dropsAll) return true;
    if (rule.effect == RuleEffect::acceptsAll || accepts(rule)) return false;
  }
  return dropsAtEnd;
}

std::string linkPattern(std::span<const std::byte> bytes) {
  const std::string whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const size_t end = whole.find('\0');
  return end == std::string::npos ? whole : whole.substr(0, end + 1);
}

bool matchesOpenPorts(std::string_view match, uint32_t revision, std::span<const std::byte> info) {
  // From the second revision on the masks of states lie in the same place.
  if (match != "conntrack" || revision < 2) return false;
  const auto parameters = lumen::readStruct<xt_conntrack_mtinfo2>(info);
  return parameters && (parameters->match_flags & XT_CONNTRACK_STATE) != 0 &&
         (parameters->invert_flags & XT_CONNTRACK_STATE) == 0 &&
         (parameters->state_mask & XT_CONNTRACK_STATE_DNAT) != 0;
}

bool matchesPinholes(std::string_view match, std::span<const std::byte> info) {
  const auto parameters = lumen::readStruct<xt_connlabel_mtinfo>(info);
  return match == "connlabel" && parameters && parameters->bit == pinholeLabel &&
         (parameters->options & XT_CONNLABEL_OP_INVERT) == 0;
}

bool hasPinholeLabel(std::span<const std::byte> mask) {
  // The kernel keeps them as unsigned longs.
  constexpr size_t bits = sizeof(unsigned long) * CHAR_BIT;
  const auto words = lumen::readStruct<std::array<unsigned long, 128 / bits>>(mask);
  return words && ((*words)[pinholeLabel / bits] >> (pinholeLabel % bits) & 1) != 0;
}

}  // namespace lumenctl
