#include <gtest/gtest.h>
#include <netinet/in.h>
// After netinet/in.h, whose types they use.
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/xt_conntrack.h>
#include <linux/netfilter_ipv4/ip_tables.h>

#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "lumen/ctl/machine/LegacyForwardChain.h"
#include "lumen/ctl/machine/PacketFilter.h"

namespace lumenctl {
namespace {

using Bytes = std::vector<std::byte>;
using Effects = std::vector<RuleEffect>;

template <typename T>
void append(Bytes& bytes, const T& value) {
  const auto* first = reinterpret_cast<const std::byte*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof value);
}

// Also proves [ctl-check-firewall].
TEST(ForwardChain, StopsOpenPortsWhenTheFirstRuleThatCountsOrTheEndDrops) {
  using enum RuleEffect;
  for (const auto& [rules, drops, stops] :
       std::vector<std::tuple<Effects, bool, bool>>{{{}, false, false},
                                                    {{}, true, true},
                                                    {{unknown}, true, true},
                                                    {{unknown, acceptsOpenPorts}, true, false},
                                                    {{acceptsAll}, true, false},
                                                    {{dropsAll}, false, true},
                                                    {{dropsAll, acceptsOpenPorts}, true, true},
                                                    {{acceptsOpenPorts, dropsAll}, true, false},
                                                    {{unknown, dropsAll}, false, true}}) {
    ForwardChain chain;
    for (const RuleEffect effect : rules) chain.rules.push_back({effect, {}});
    chain.dropsAtEnd = drops;
    EXPECT_EQ(chain.stopsOpenPorts("wan0"), stops);
    chain.elsewhere = {{acceptsOpenPorts, {}}};
    EXPECT_FALSE(chain.stopsOpenPorts("wan0"));
  }
}

std::string exactly(const std::string& link) { return link + '\0'; }

TEST(ForwardRule, HoldsForTheInterfacesThatItNames) {
  const ForwardRule named{RuleEffect::acceptsOpenPorts, {exactly("wan0"), "ppp"}};
  EXPECT_TRUE(named.holdsFor("wan0"));
  EXPECT_TRUE(named.holdsFor("ppp7"));
  EXPECT_FALSE(named.holdsFor("wan01"));
  EXPECT_FALSE(named.holdsFor("wan"));
  EXPECT_FALSE(named.holdsFor("pp"));
  EXPECT_TRUE(named.holdsFor("")) << "by some interface";
  EXPECT_TRUE((ForwardRule{RuleEffect::acceptsOpenPorts, {}}).holdsFor("br-lan"));
}

// Promise: `upnp check` finds a firewall whose rules for open ports name other interfaces than the
// external ones, or not all of them.
TEST(ForwardChain, StopsOpenPortsOfAnInterfaceThatNoRuleNames) {
  using enum RuleEffect;
  ForwardChain chain;
  chain.dropsAtEnd = true;
  chain.rules = {{acceptsOpenPorts, {exactly("wan0")}}};
  EXPECT_FALSE(chain.stopsOpenPorts("wan0"));
  EXPECT_TRUE(chain.stopsOpenPorts("wan1"));
  chain.elsewhere = {{acceptsOpenPorts, {exactly("wan2")}}};
  EXPECT_TRUE(chain.stopsOpenPorts("wan1"));
  EXPECT_FALSE(chain.stopsOpenPorts("wan2"));
  chain.rules.push_back({acceptsOpenPorts, {exactly("wan1")}});
  EXPECT_FALSE(chain.stopsOpenPorts("wan1"));
  chain.rules.insert(chain.rules.begin() + 1, {dropsAll, {}});
  EXPECT_TRUE(chain.stopsOpenPorts("wan1"));
}

TEST(ForwardRule, ReadsTheBytesThatTheKernelComparesWithAName) {
  const auto pattern = [](std::string_view bytes) {
    return linkPattern(std::as_bytes(std::span(bytes)));
  };
  EXPECT_EQ(pattern({"wan0\0\0\0\0\0\0\0\0\0\0\0\0", 16}), exactly("wan0"));
  EXPECT_EQ(pattern("ppp"), "ppp");
  EXPECT_EQ(pattern(""), "");
}

xt_conntrack_mtinfo3 ctstate(uint16_t states) {
  xt_conntrack_mtinfo3 info{};
  info.match_flags = XT_CONNTRACK_STATE;
  info.state_mask = states;
  return info;
}

bool matches(const xt_conntrack_mtinfo3& info, const std::string& name = "conntrack",
             uint32_t revision = 3) {
  Bytes bytes;
  append(bytes, info);
  return matchesOpenPorts(name, revision, bytes);
}

TEST(IptablesMatch, HoldsForOpenPortsWhenItLooksForTranslatedDestinations) {
  EXPECT_TRUE(matches(ctstate(XT_CONNTRACK_STATE_DNAT)));
  EXPECT_TRUE(matches(ctstate(XT_CONNTRACK_STATE_DNAT | XT_CONNTRACK_STATE_SNAT)));
  EXPECT_TRUE(matches(ctstate(XT_CONNTRACK_STATE_DNAT), "conntrack", 2));
}

TEST(IptablesMatch, DoesNotHoldForAnythingElse) {
  EXPECT_FALSE(matches(ctstate(XT_CONNTRACK_STATE_SNAT))) << "translated sources";
  EXPECT_FALSE(matches(ctstate(XT_CONNTRACK_STATE_BIT(IP_CT_ESTABLISHED)))) << "known flows";
  EXPECT_FALSE(matches(ctstate(XT_CONNTRACK_STATE_DNAT), "state")) << "another match";
  EXPECT_FALSE(matches(ctstate(XT_CONNTRACK_STATE_DNAT), "conntrack", 1)) << "another layout";
  xt_conntrack_mtinfo3 info = ctstate(XT_CONNTRACK_STATE_DNAT);
  info.invert_flags = XT_CONNTRACK_STATE;
  EXPECT_FALSE(matches(info)) << "! --ctstate DNAT";
  info = ctstate(XT_CONNTRACK_STATE_DNAT);
  info.match_flags = XT_CONNTRACK_PROTO;
  EXPECT_FALSE(matches(info)) << "looks at no state";
  EXPECT_FALSE(matchesOpenPorts("conntrack", 3, Bytes(7))) << "too short";
}

/// The table "filter" of the legacy iptables, rule by rule.
struct LegacyTable {
  static constexpr int32_t accept = -NF_ACCEPT - 1;
  static constexpr int32_t drop = -NF_DROP - 1;
  static constexpr int32_t back = XT_RETURN;

  /// Returns where the rule begins.
  uint32_t add(int32_t verdict, const std::string& target = "", const Bytes& match = {},
               const std::string& link = "", uint8_t inverted = 0) {
    const auto begin = static_cast<uint32_t>(bytes.size());
    ipt_entry entry{};
    // As iptables writes it: "ppp+" names all whose names begin so.
    const size_t named = link.ends_with('+') ? link.size() - 1 : link.size();
    link.copy(entry.ip.iniface, named);
    std::memset(entry.ip.iniface_mask, 0xFF,
                link.empty() || named < link.size() ? named : named + 1);
    entry.ip.invflags = inverted;
    entry.target_offset = static_cast<uint16_t>(sizeof entry + match.size());
    entry.next_offset = static_cast<uint16_t>(entry.target_offset + sizeof(xt_standard_target));
    const auto* head = reinterpret_cast<const std::byte*>(&entry);
    bytes.insert(bytes.end(), head, head + sizeof entry);
    bytes.insert(bytes.end(), match.begin(), match.end());
    xt_standard_target standard{};
    standard.target.u.user.target_size = sizeof standard;
    target.copy(standard.target.u.user.name, sizeof standard.target.u.user.name - 1);
    standard.verdict = verdict;
    append(bytes, standard);
    return begin;
  }

  [[nodiscard]] ForwardChain read() const { return readLegacyForwardChain(bytes, layout); }

  Bytes bytes;
  LegacyLayout layout;
};

Bytes match(uint16_t states) {
  xt_entry_match head{};
  head.u.user.match_size = sizeof head + sizeof(xt_conntrack_mtinfo3);
  std::strcpy(head.u.user.name, "conntrack");
  head.u.user.revision = 3;
  Bytes bytes;
  append(bytes, head);
  append(bytes, ctstate(states));
  return bytes;
}

Effects effectsOf(const ForwardChain& chain) {
  Effects effects;
  for (const ForwardRule& rule : chain.rules) effects.push_back(rule.effect);
  return effects;
}

/// INPUT drops, FORWARD has these two rules and drops, OUTPUT accepts, and a chain of the
/// administrator's follows.
LegacyTable guarded(int32_t policy = LegacyTable::drop) {
  LegacyTable table;
  table.add(LegacyTable::drop);
  table.layout.forward =
      table.add(LegacyTable::accept, "", match(XT_CONNTRACK_STATE_BIT(IP_CT_ESTABLISHED)));
  table.add(LegacyTable::accept, "", {}, "br-lan");
  table.layout.forwardEnd = table.add(policy);
  table.layout.builtInEnd = table.add(LegacyTable::accept);
  table.add(0, XT_ERROR_TARGET);
  return table;
}

TEST(LegacyTable, GivesTheForwardChainAlone) {
  const ForwardChain chain = guarded().read();
  EXPECT_EQ(chain.tool, ForwardChain::Tool::iptablesLegacy);
  EXPECT_EQ(effectsOf(chain), (Effects{RuleEffect::unknown, RuleEffect::unknown}));
  EXPECT_TRUE(chain.dropsAtEnd);
  EXPECT_TRUE(chain.stopsOpenPorts("wan0"));
  EXPECT_FALSE(guarded(LegacyTable::accept).read().dropsAtEnd);
}

// Also proves [ctl-check-firewall].
TEST(LegacyTable, KnowsWhatARuleDoes) {
  const std::vector<std::tuple<int32_t, std::string, Bytes, std::string, RuleEffect>> rules = {
      {LegacyTable::accept, "", match(XT_CONNTRACK_STATE_DNAT), "", RuleEffect::acceptsOpenPorts},
      {LegacyTable::accept, "", match(XT_CONNTRACK_STATE_DNAT), "wan0",
       RuleEffect::acceptsOpenPorts},
      {LegacyTable::drop, "", match(XT_CONNTRACK_STATE_DNAT), "", RuleEffect::unknown},
      {LegacyTable::accept, "", {}, "", RuleEffect::acceptsAll},
      {LegacyTable::accept, "", {}, "wan0", RuleEffect::unknown},
      {LegacyTable::drop, "", {}, "", RuleEffect::dropsAll},
      {LegacyTable::drop, "", {}, "wan0", RuleEffect::unknown},
      {0, "REJECT", {}, "", RuleEffect::dropsAll},
      {LegacyTable::drop, "LOG", {}, "", RuleEffect::unknown},
      {LegacyTable::back, "", {}, "", RuleEffect::unknown},
  };
  for (const auto& [verdict, target, matched, link, effect] : rules) {
    LegacyTable table;
    table.layout.forward = table.add(verdict, target, matched, link);
    table.layout.forwardEnd = table.layout.builtInEnd = table.add(LegacyTable::drop);
    EXPECT_EQ(effectsOf(table.read()), Effects{effect}) << target << " " << verdict << " " << link;
  }
}

TEST(LegacyTable, KnowsTheInterfaceThatARuleNames) {
  for (const auto& [link, inverted, links] :
       std::vector<std::tuple<std::string, uint8_t, std::vector<std::string>>>{
           {"", 0, {}},
           {"wan0", 0, {exactly("wan0")}},
           {"fifteen-letters", 0, {exactly("fifteen-letters")}},
           {"ppp+", 0, {"ppp"}},
           {"br-lan", IPT_INV_VIA_IN, {}}}) {
    LegacyTable table;
    table.layout.forward =
        table.add(LegacyTable::accept, "", match(XT_CONNTRACK_STATE_DNAT), link, inverted);
    table.layout.forwardEnd = table.layout.builtInEnd = table.add(LegacyTable::drop);
    EXPECT_EQ(table.read().rules, (std::vector<ForwardRule>{{RuleEffect::acceptsOpenPorts, links}}))
        << link;
  }
}

TEST(LegacyTable, FindsARuleForOpenPortsInAChainOfTheAdministrators) {
  LegacyTable table = guarded();
  table.add(LegacyTable::accept, "", match(XT_CONNTRACK_STATE_DNAT), "wan0");
  EXPECT_EQ(table.read().elsewhere,
            (std::vector<ForwardRule>{{RuleEffect::acceptsOpenPorts, {exactly("wan0")}}}));
  EXPECT_TRUE(guarded().read().elsewhere.empty());
}

TEST(LegacyTable, KnowsTheChainsOfUfw) {
  using Manager = ForwardChain::Manager;
  for (const auto& [name, manager] : std::vector<std::pair<std::string, Manager>>{
           {"ufw-before-forward", Manager::ufw}, {"outside", Manager::none}}) {
    LegacyTable table = guarded();
    const uint32_t head = table.add(0, XT_ERROR_TARGET);
    table.bytes.resize(head + sizeof(ipt_entry) + sizeof(xt_entry_target));
    ipt_entry entry{};
    std::memcpy(&entry, table.bytes.data() + head, sizeof entry);
    std::array<char, XT_FUNCTION_MAXNAMELEN> title{};
    name.copy(title.data(), title.size() - 1);
    append(table.bytes, title);
    entry.next_offset = static_cast<uint16_t>(table.bytes.size() - head);
    std::memcpy(table.bytes.data() + head, &entry, sizeof entry);
    EXPECT_EQ(table.read().manager, manager) << name;
  }
}

TEST(LegacyTable, StopsWhereALengthIsWrong) {
  const LegacyTable whole = guarded();
  for (size_t length = 0; length < whole.bytes.size(); ++length) {
    LegacyTable cut = whole;
    cut.bytes.resize(length);
    const ForwardChain chain = cut.read();
    EXPECT_EQ(chain.dropsAtEnd, length >= whole.layout.builtInEnd) << length;
    EXPECT_LE(chain.rules.size(), 2U) << length;
  }
  const size_t lengths = whole.layout.forward + offsetof(ipt_entry, target_offset);
  for (size_t at = lengths; at < lengths + 2 * sizeof(uint16_t); ++at) {
    LegacyTable broken = whole;
    broken.bytes[at] ^= std::byte{0xFF};
    EXPECT_FALSE(broken.read().dropsAtEnd) << at;
  }
}

}  // namespace
}  // namespace lumenctl
