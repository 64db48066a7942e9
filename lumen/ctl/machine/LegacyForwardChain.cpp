#include "lumen/ctl/machine/LegacyForwardChain.h"

#include <netinet/in.h>
// After netinet/in.h, whose types it uses.
#include <linux/netfilter_ipv4/ip_tables.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumenctl {

namespace {

using Bytes = std::span<const std::byte>;

/// The head of a match or of a target; its parameters follow.
struct Extension {
  uint16_t size;
  std::array<char, XT_EXTENSION_MAXNAMELEN> name;
  uint8_t revision;

  [[nodiscard]] std::string_view title() const {
    return {name.data(), strnlen(name.data(), name.size())};
  }
};
static_assert(sizeof(Extension) <= sizeof(xt_entry_match) &&
              offsetof(Extension, revision) == offsetof(xt_entry_match, u.user.revision));

/// An entry that checks neither addresses nor interfaces nor the protocol.
bool matchesEverything(const ipt_ip& ip) {
  ipt_ip nothing{};
  nothing.flags = ip.flags & IPT_F_GOTO;
  return std::memcmp(&ip, &nothing, sizeof nothing) == 0;
}

// The standard target is the one without a name (XT_STANDARD_TARGET).

bool isDrop(Bytes target, std::string_view title) {
  if (title == "REJECT") return true;
  const auto verdict = lumen::readStruct<int32_t>(target.subspan(sizeof(xt_entry_target)));
  return title.empty() && verdict == -NF_DROP - 1;
}

bool isAccept(Bytes target, std::string_view title) {
  const auto verdict = lumen::readStruct<int32_t>(target.subspan(sizeof(xt_entry_target)));
  return title.empty() && verdict == -NF_ACCEPT - 1;
}

/// Whether the entry, of at least its own lengths, is the head of one of ufw's chains: the target
/// ERROR, whose parameter is the chain's name, stands before the rules of each.
bool beginsChainOfUfw(const ipt_entry& head, Bytes entry) {
  const Bytes target = entry.subspan(head.target_offset);
  const auto title = lumen::readStruct<Extension>(target);
  if (!title || title->title() != XT_ERROR_TARGET || target.size() < sizeof(xt_entry_target)) {
    return false;
  }
  const Bytes name = target.subspan(sizeof(xt_entry_target));
  return isOfUfw({reinterpret_cast<const char*>(name.data()), name.size()});
}

/// The incoming interface that it names, if it does.
std::vector<std::string> linksOf(const ipt_ip& ip) {
  if ((ip.invflags & IPT_INV_VIA_IN) != 0 || ip.iniface_mask[0] == 0) return {};
  const Bytes name = std::as_bytes(std::span(ip.iniface));
  return {linkPattern(name.first(
      strnlen(reinterpret_cast<const char*>(ip.iniface_mask), std::size(ip.iniface_mask))))};
}

/// Of an entry of at least its own lengths.
RuleEffect effectOf(const ipt_entry& head, Bytes entry) {
  const Bytes target = entry.subspan(head.target_offset);
  const auto title = lumen::readStruct<Extension>(target);
  if (!title || target.size() < sizeof(xt_entry_target)) return RuleEffect::unknown;
  bool openPorts = false;
  Bytes matches = entry.subspan(sizeof(ipt_entry), head.target_offset - sizeof(ipt_entry));
  const bool always = matchesEverything(head.ip) && matches.empty();
  while (const auto match = lumen::readStruct<Extension>(matches)) {
    if (match->size < sizeof(xt_entry_match) || match->size > matches.size()) break;
    openPorts |= matchesOpenPorts(
        match->title(), match->revision,
        matches.subspan(sizeof(xt_entry_match), match->size - sizeof(xt_entry_match)));
    matches = matches.subspan(match->size);
  }
  if (isAccept(target, title->title())) {
    if (openPorts) return RuleEffect::acceptsOpenPorts;
    if (always) return RuleEffect::acceptsAll;
  }
  return always && isDrop(target, title->title()) ? RuleEffect::dropsAll : RuleEffect::unknown;
}

}  // namespace

ForwardChain readLegacyForwardChain(Bytes rules, const LegacyLayout& layout) {
  ForwardChain chain;
  chain.tool = ForwardChain::Tool::iptablesLegacy;
  chain.family = "ip";
  chain.table = "filter";
  chain.name = "FORWARD";
  size_t offset = 0;
  while (rules.size() - offset >= sizeof(ipt_entry)) {
    ipt_entry head{};
    std::memcpy(&head, rules.data() + offset, sizeof head);
    const bool fits = head.target_offset >= sizeof head && head.next_offset >= head.target_offset &&
                      head.next_offset <= rules.size() - offset;
    if (!fits) break;
    const ForwardRule rule{effectOf(head, rules.subspan(offset, head.next_offset)),
                           linksOf(head.ip)};
    if (offset == layout.forwardEnd) {
      chain.dropsAtEnd = rule.effect == RuleEffect::dropsAll;
    } else if (offset >= layout.forward && offset < layout.forwardEnd) {
      chain.rules.push_back(rule);
    } else if (offset > layout.builtInEnd) {
      if (rule.effect == RuleEffect::acceptsOpenPorts) chain.elsewhere.push_back(rule);
      if (beginsChainOfUfw(head, rules.subspan(offset, head.next_offset))) {
        chain.manager = ForwardChain::Manager::ufw;
      }
    }
    offset += head.next_offset;
  }
  return chain;
}

}  // namespace lumenctl
