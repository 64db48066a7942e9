#include "lumen/ctl/machine/NftForwardChains.h"

#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/in.h>
// After netinet/in.h, whose types it uses.
#include <linux/netfilter.h>

#include <algorithm>
#include <utility>

#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumenctl {

namespace {

using Bytes = std::span<const std::byte>;

/// The attributes in `bytes` by their type.
std::map<uint32_t, Bytes> attributesOf(Bytes bytes) {
  std::map<uint32_t, Bytes> found;
  (void)lumen::visitAttributes(bytes, [&](const nlattr& attribute) {
    found[mnl_attr_get_type(&attribute)] = lumen::payload(attribute);
  });
  return found;
}

std::string text(Bytes bytes) {
  const std::string whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return whole.substr(0, whole.find('\0'));
}

/// A number as netlink carries it, in network byte order.
uint32_t number(Bytes bytes) { return ntohl(lumen::readStruct<uint32_t>(bytes).value_or(0)); }

/// A value that is compared with the kernel's own, in this machine's byte order.
uint32_t hostValue(Bytes data) {
  return lumen::readStruct<uint32_t>(attributesOf(data)[NFTA_DATA_VALUE]).value_or(0);
}

/// Of open ports or pinholes alone.
bool isAcceptance(RuleEffect effect) {
  return effect == RuleEffect::acceptsOpenPorts || effect == RuleEffect::acceptsPinholes;
}

/// What a rule does, found by going through its expressions.
class RuleReader {
 public:
  void take(const std::string& expression, Bytes data) {
    std::map<uint32_t, Bytes> fields = attributesOf(data);
    const bool wasStatus = std::exchange(loadedStatus_, false);
    const bool wasMasked = std::exchange(masked_, false);
    const bool wasLabels = std::exchange(loadedLabels_, false);
    const bool wasPinholes = std::exchange(maskedLabel_, false);
    const uint32_t linkRegister = std::exchange(linkRegister_, 0);
    if (expression == "counter") return;
    if (expression == "immediate") return takeImmediate(fields);
    if (expression == "reject") return decide(NF_DROP);
    if (expression == "target") return takeTarget(fields);
    conditional_ = true;
    if (expression == "meta") {
      if (number(fields[NFTA_META_KEY]) == NFT_META_IIFNAME) {
        linkRegister_ = number(fields[NFTA_META_DREG]);
      }
    } else if (expression == "lookup") {
      // One with a destination gives a verdict or a value; one with flags holds for what is not
      // in the set.
      if (linkRegister != 0 && number(fields[NFTA_LOOKUP_SREG]) == linkRegister &&
          fields.count(NFTA_LOOKUP_DREG) == 0 && number(fields[NFTA_LOOKUP_FLAGS]) == 0) {
        linkSet_ = text(fields[NFTA_LOOKUP_SET]);
      }
    } else if (expression == "ct") {
      loadedStatus_ = number(fields[NFTA_CT_KEY]) == NFT_CT_STATUS && fields.count(NFTA_CT_DREG);
      loadedLabels_ = number(fields[NFTA_CT_KEY]) == NFT_CT_LABELS && fields.count(NFTA_CT_DREG);
    } else if (expression == "bitwise") {
      masked_ = wasStatus && (hostValue(fields[NFTA_BITWISE_MASK]) & IPS_DST_NAT) != 0;
      maskedLabel_ =
          wasLabels && hasPinholeLabel(attributesOf(fields[NFTA_BITWISE_MASK])[NFTA_DATA_VALUE]);
    } else if (expression == "cmp") {
      if (linkRegister != 0 && number(fields[NFTA_CMP_SREG]) == linkRegister &&
          number(fields[NFTA_CMP_OP]) == NFT_CMP_EQ) {
        links_ = {linkPattern(attributesOf(fields[NFTA_CMP_DATA])[NFTA_DATA_VALUE])};
      }
      openPorts_ |= wasMasked && number(fields[NFTA_CMP_OP]) == NFT_CMP_NEQ &&
                    hostValue(fields[NFTA_CMP_DATA]) == 0;
      pinholes_ |= wasPinholes && number(fields[NFTA_CMP_OP]) == NFT_CMP_NEQ;
    } else if (expression == "match") {
      openPorts_ |= matchesOpenPorts(text(fields[NFTA_MATCH_NAME]), number(fields[NFTA_MATCH_REV]),
                                     fields[NFTA_MATCH_INFO]);
      pinholes_ |= matchesPinholes(text(fields[NFTA_MATCH_NAME]), fields[NFTA_MATCH_INFO]);
    }
  }

  [[nodiscard]] ForwardRule rule() const { return {effect_, links_}; }
  /// The set in which the incoming interface must be; empty: none.
  [[nodiscard]] const std::string& linkSet() const { return linkSet_; }

 private:
  void takeImmediate(std::map<uint32_t, Bytes>& fields) {
    std::map<uint32_t, Bytes> data = attributesOf(fields[NFTA_IMMEDIATE_DATA]);
    if (number(fields[NFTA_IMMEDIATE_DREG]) != NFT_REG_VERDICT) return;
    decide(number(attributesOf(data[NFTA_DATA_VERDICT])[NFTA_VERDICT_CODE]));
  }

  void takeTarget(std::map<uint32_t, Bytes>& fields) {
    if (text(fields[NFTA_TARGET_NAME]) == "REJECT") decide(NF_DROP);
  }

  void decide(uint32_t verdict) {
    if (verdict == NF_ACCEPT && openPorts_) {
      effect_ = RuleEffect::acceptsOpenPorts;
    } else if (verdict == NF_ACCEPT && pinholes_) {
      effect_ = RuleEffect::acceptsPinholes;
    } else if (verdict == NF_ACCEPT && !conditional_) {
      effect_ = RuleEffect::acceptsAll;
    } else if (verdict == NF_DROP && !conditional_) {
      effect_ = RuleEffect::dropsAll;
    }
  }

  bool loadedStatus_ = false;  // the expression before this one has loaded the flow's status
  bool masked_ = false;        // and that one was masked with IPS_DST_NAT
  bool loadedLabels_ = false;  // it has loaded the flow's labels
  bool maskedLabel_ = false;   // and those were masked with that of pinholes
  bool conditional_ = false;
  bool openPorts_ = false;  // holds for what was translated to another destination
  bool pinholes_ = false;   // holds for what has the label of pinholes
  RuleEffect effect_ = RuleEffect::unknown;
  // The register into which the expression before this one has loaded the incoming interface's
  // name.
  uint32_t linkRegister_ = 0;
  std::vector<std::string> links_;
  std::string linkSet_;
};

}  // namespace

void NftForwardChains::take(const nlmsghdr& message) {
  if (NFNL_SUBSYS_ID(message.nlmsg_type) != NFNL_SUBSYS_NFTABLES ||
      message.nlmsg_len < NLMSG_LENGTH(sizeof(nfgenmsg))) {
    return;
  }
  const Bytes body(static_cast<const std::byte*>(mnl_nlmsg_get_payload(&message)),
                   mnl_nlmsg_get_payload_len(&message));
  const uint32_t family = std::to_integer<uint32_t>(body[offsetof(nfgenmsg, nfgen_family)]);
  if (family != NFPROTO_IPV4 && family != NFPROTO_IPV6 && family != NFPROTO_INET) return;
  const Bytes attributes = body.subspan(lumen::netlinkAligned(sizeof(nfgenmsg)));
  const int kind = NFNL_MSG_TYPE(message.nlmsg_type);
  if (kind == NFT_MSG_NEWCHAIN) takeChain(family, attributes);
  if (kind == NFT_MSG_NEWRULE) takeRule(family, attributes);
  if (kind == NFT_MSG_NEWSETELEM) takeElements(family, attributes);
}

void NftForwardChains::takeChain(uint32_t family, Bytes attributes) {
  std::map<uint32_t, Bytes> fields = attributesOf(attributes);
  ForwardChain chain;
  chain.family = family == NFPROTO_INET ? "inet" : family == NFPROTO_IPV6 ? "ip6" : "ip";
  chain.table = text(fields[NFTA_CHAIN_TABLE]);
  chain.name = text(fields[NFTA_CHAIN_NAME]);
  const Key key(family, chain.table, chain.name);
  if (fields.count(NFTA_CHAIN_HOOK) == 0) {
    others_.insert(key);
    return;
  }
  if (number(attributesOf(fields[NFTA_CHAIN_HOOK])[NFTA_HOOK_HOOKNUM]) != NF_INET_FORWARD) return;
  // iptables-nft names its chains like this, and cannot handle rules that nft has added.
  if (chain.family != "inet" && chain.table == "filter" && chain.name == "FORWARD") {
    chain.tool = ForwardChain::Tool::iptables;
  }
  if (chain.table == "firewalld") chain.manager = ForwardChain::Manager::firewalld;
  chain.dropsAtEnd =
      fields.count(NFTA_CHAIN_POLICY) != 0 && number(fields[NFTA_CHAIN_POLICY]) == NF_DROP;
  forward_[key] = std::move(chain);
}

void NftForwardChains::takeRule(uint32_t family, Bytes attributes) {
  std::map<uint32_t, Bytes> fields = attributesOf(attributes);
  RuleReader reader;
  (void)lumen::visitAttributes(fields[NFTA_RULE_EXPRESSIONS], [&](const nlattr& element) {
    std::map<uint32_t, Bytes> expression = attributesOf(lumen::payload(element));
    reader.take(text(expression[NFTA_EXPR_NAME]), expression[NFTA_EXPR_DATA]);
  });
  const Key chain(family, text(fields[NFTA_RULE_TABLE]), text(fields[NFTA_RULE_CHAIN]));
  rules_[chain].push_back({reader.rule(), reader.linkSet()});
}

void NftForwardChains::takeElements(uint32_t family, Bytes attributes) {
  std::map<uint32_t, Bytes> fields = attributesOf(attributes);
  LinkSet& set = sets_[Key(family, text(fields[NFTA_SET_ELEM_LIST_TABLE]),
                           text(fields[NFTA_SET_ELEM_LIST_SET]))];
  (void)lumen::visitAttributes(fields[NFTA_SET_ELEM_LIST_ELEMENTS], [&](const nlattr& element) {
    std::map<uint32_t, Bytes> parts = attributesOf(lumen::payload(element));
    set.intervals |= (number(parts[NFTA_SET_ELEM_FLAGS]) & NFT_SET_ELEM_INTERVAL_END) != 0;
    set.links.push_back(linkPattern(attributesOf(parts[NFTA_SET_ELEM_KEY])[NFTA_DATA_VALUE]));
  });
}

std::set<NftForwardChains::Key> NftForwardChains::linkSets() const {
  std::set<Key> sets;
  for (const auto& [chain, rules] : rules_) {
    for (const Rule& rule : rules) {
      if (!isAcceptance(rule.known.effect) || rule.linkSet.empty()) continue;
      sets.emplace(std::get<0>(chain), std::get<1>(chain), rule.linkSet);
    }
  }
  return sets;
}

std::vector<ForwardRule> NftForwardChains::rulesOf(const Key& chain) const {
  std::vector<ForwardRule> result;
  const auto rules = rules_.find(chain);
  if (rules == rules_.end()) return result;
  for (const Rule& rule : rules->second) {
    result.push_back(rule.known);
    const auto set = sets_.find(Key(std::get<0>(chain), std::get<1>(chain), rule.linkSet));
    if (set != sets_.end() && !set->second.intervals) result.back().links = set->second.links;
  }
  return result;
}

std::vector<ForwardChain> NftForwardChains::chains() const {
  std::vector<ForwardChain> result;
  for (const auto& [key, chain] : forward_) {
    result.push_back(chain);
    result.back().rules = rulesOf(key);
    for (const Key& otherKey : others_) {
      if (std::get<0>(otherKey) != std::get<0>(key) || std::get<1>(otherKey) != std::get<1>(key)) {
        continue;
      }
      for (ForwardRule& rule : rulesOf(otherKey)) {
        if (!isAcceptance(rule.effect)) continue;
        result.back().elsewhere.push_back(std::move(rule));
      }
      if (chain.tool != ForwardChain::Tool::nft && isOfUfw(std::get<2>(otherKey))) {
        result.back().manager = ForwardChain::Manager::ufw;
      }
    }
  }
  return result;
}

}  // namespace lumenctl
