#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "lumen/ctl/machine/NftForwardChains.h"

namespace lumenctl {
namespace {

using Rules = std::vector<ForwardRule>;

/// A message of the kernel that is being written.
class Writer {
 public:
  Writer(uint16_t kind, uint8_t family) {
    mnl_nlmsg_put_header(buffer_.data());
    message().nlmsg_type = static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | kind);
    auto* body = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(&message(), sizeof(nfgenmsg)));
    body->nfgen_family = family;
  }

  Writer& text(uint16_t type, const std::string& value) {
    mnl_attr_put_strz(&message(), type, value.c_str());
    return *this;
  }
  Writer& number(uint16_t type, uint32_t value) {
    mnl_attr_put_u32(&message(), type, htonl(value));
    return *this;
  }
  Writer& hostNumber(uint16_t type, uint32_t value) {
    mnl_attr_put_u32(&message(), type, value);
    return *this;
  }
  Writer& bytes(uint16_t type, const std::string& value) {
    mnl_attr_put(&message(), type, value.size(), value.data());
    return *this;
  }
  Writer& nest(uint16_t type, const std::function<void(Writer&)>& content) {
    nlattr* nested = mnl_attr_nest_start(&message(), type);
    content(*this);
    mnl_attr_nest_end(&message(), nested);
    return *this;
  }
  /// An expression of a rule.
  Writer& expression(const std::string& name, const std::function<void(Writer&)>& data) {
    return nest(NFTA_LIST_ELEM, [&](Writer& element) {
      element.text(NFTA_EXPR_NAME, name).nest(NFTA_EXPR_DATA, data);
    });
  }
  Writer& counter() {
    return expression("counter", [](Writer&) {});
  }
  Writer& reject() {
    return expression("reject", [](Writer& w) { w.number(NFTA_REJECT_TYPE, 2); });
  }
  Writer& loadsLink(uint32_t into = NFT_REG_1) {
    return expression("meta", [&](Writer& w) {
      w.number(NFTA_META_KEY, NFT_META_IIFNAME).number(NFTA_META_DREG, into);
    });
  }
  Writer& comparesName(uint32_t operation, const std::string& bytes) {
    return expression("cmp", [&](Writer& w) {
      w.number(NFTA_CMP_SREG, NFT_REG_1).number(NFTA_CMP_OP, operation);
      w.nest(NFTA_CMP_DATA, [&](Writer& data) { data.bytes(NFTA_DATA_VALUE, bytes); });
    });
  }
  Writer& looksUp(const std::string& set, uint32_t flags = 0) {
    return expression("lookup", [&](Writer& w) {
      w.text(NFTA_LOOKUP_SET, set).number(NFTA_LOOKUP_SREG, NFT_REG_1);
      if (flags != 0) w.number(NFTA_LOOKUP_FLAGS, flags);
    });
  }
  Writer& someCondition() {
    return expression("meta", [](Writer& w) { w.number(NFTA_META_KEY, NFT_META_IIFNAME); });
  }
  Writer& loadsCt(uint32_t key) {
    return expression(
        "ct", [&](Writer& w) { w.number(NFTA_CT_KEY, key).number(NFTA_CT_DREG, NFT_REG_1); });
  }
  Writer& masks(uint32_t mask) {
    return expression("bitwise", [&](Writer& w) {
      w.nest(NFTA_BITWISE_MASK, [&](Writer& data) { data.hostNumber(NFTA_DATA_VALUE, mask); });
    });
  }
  /// As the kernel keeps labels: in unsigned longs.
  Writer& masksLabel(unsigned label) {
    constexpr size_t bits = sizeof(unsigned long) * 8;
    std::vector<unsigned long> words(128 / bits);
    words[label / bits] = 1UL << label % bits;
    const std::string mask(reinterpret_cast<const char*>(words.data()), 16);
    return expression("bitwise", [&](Writer& w) {
      w.nest(NFTA_BITWISE_MASK, [&](Writer& data) { data.bytes(NFTA_DATA_VALUE, mask); });
    });
  }
  Writer& compares(uint32_t operation, uint32_t value) {
    return expression("cmp", [&](Writer& w) {
      w.number(NFTA_CMP_OP, operation).nest(NFTA_CMP_DATA, [&](Writer& data) {
        data.hostNumber(NFTA_DATA_VALUE, value);
      });
    });
  }
  Writer& verdict(uint32_t code) {
    return expression("immediate", [&](Writer& w) {
      w.number(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT).nest(NFTA_IMMEDIATE_DATA, [&](Writer& data) {
        data.nest(NFTA_DATA_VERDICT, [&](Writer& v) { v.number(NFTA_VERDICT_CODE, code); });
      });
    });
  }
  Writer& statusDnat() {
    return loadsCt(NFT_CT_STATUS).masks(IPS_DST_NAT).compares(NFT_CMP_NEQ, 0);
  }

  [[nodiscard]] nlmsghdr& message() { return *reinterpret_cast<nlmsghdr*>(buffer_.data()); }

 private:
  alignas(nlmsghdr) std::array<char, 4096> buffer_{};
};

Writer chain(const std::string& table, const std::string& name, uint8_t family, uint32_t hook,
             uint32_t policy) {
  Writer writer(NFT_MSG_NEWCHAIN, family);
  writer.text(NFTA_CHAIN_TABLE, table).text(NFTA_CHAIN_NAME, name);
  writer.nest(NFTA_CHAIN_HOOK, [&](Writer& w) { w.number(NFTA_HOOK_HOOKNUM, hook); });
  writer.number(NFTA_CHAIN_POLICY, policy);
  return writer;
}

Writer rule(const std::string& chainName, const std::function<void(Writer&)>& expressions,
            const std::string& table = "guard") {
  Writer writer(NFT_MSG_NEWRULE, NFPROTO_INET);
  writer.text(NFTA_RULE_TABLE, table).text(NFTA_RULE_CHAIN, chainName);
  writer.nest(NFTA_RULE_EXPRESSIONS, expressions);
  return writer;
}

/// A name as nft writes it to be compared exactly.
std::string padded(std::string link) {
  link.resize(16);
  return link;
}

std::string exactly(const std::string& link) { return link + '\0'; }

/// The elements of a set of "inet guard", the last `ends` of them ends of intervals.
Writer elements(const std::string& set, const std::vector<std::string>& keys, size_t ends = 0) {
  Writer writer(NFT_MSG_NEWSETELEM, NFPROTO_INET);
  writer.text(NFTA_SET_ELEM_LIST_TABLE, "guard").text(NFTA_SET_ELEM_LIST_SET, set);
  writer.nest(NFTA_SET_ELEM_LIST_ELEMENTS, [&](Writer& list) {
    for (size_t i = 0; i < keys.size(); ++i) {
      list.nest(NFTA_LIST_ELEM, [&](Writer& element) {
        element.nest(NFTA_SET_ELEM_KEY, [&](Writer& w) { w.bytes(NFTA_DATA_VALUE, keys[i]); });
        if (i + ends >= keys.size()) element.number(NFTA_SET_ELEM_FLAGS, NFT_SET_ELEM_INTERVAL_END);
      });
    }
  });
  return writer;
}

/// The table "inet guard" with a chain "forward" that drops and a chain "other" at no hook.
struct Nft : testing::Test {
  Nft() {
    take(chain("guard", "forward", NFPROTO_INET, NF_INET_FORWARD, NF_DROP));
    Writer other(NFT_MSG_NEWCHAIN, NFPROTO_INET);
    take(other.text(NFTA_CHAIN_TABLE, "guard").text(NFTA_CHAIN_NAME, "other"));
  }
  void take(Writer writer) { found.take(writer.message()); }
  /// What the only rule of "forward" does.
  RuleEffect effectOf(const std::function<void(Writer&)>& expressions) {
    take(rule("forward", expressions));
    return found.chains().front().rules.back().effect;
  }
  /// The interfaces that the only rule of "forward" names.
  std::vector<std::string> linksOf(const std::function<void(Writer&)>& expressions) {
    take(rule("forward", expressions));
    return found.chains().front().rules.back().links;
  }

  NftForwardChains found;
};

TEST_F(Nft, FindsTheChainsAtTheForwardHook) {
  take(chain("guard", "input", NFPROTO_INET, NF_INET_LOCAL_IN, NF_DROP));
  take(chain("six", "forward", NFPROTO_IPV6, NF_INET_FORWARD, NF_DROP));
  take(chain("filter", "FORWARD", NFPROTO_IPV4, NF_INET_FORWARD, NF_ACCEPT));
  const std::vector<ForwardChain> chains = found.chains();
  ASSERT_EQ(chains.size(), 3U);
  EXPECT_EQ(chains[2].family + " " + chains[2].table + " " + chains[2].name, "ip6 six forward");
  EXPECT_TRUE(chains[2].stopsPinholes("wan0"));
  EXPECT_FALSE(chains[2].stopsOpenPorts("wan0")) << "it sees none";
  EXPECT_FALSE(chains[1].stopsPinholes("wan0"));
  EXPECT_EQ(chains[0].family + " " + chains[0].table + " " + chains[0].name, "inet guard forward");
  EXPECT_EQ(chains[0].tool, ForwardChain::Tool::nft);
  EXPECT_TRUE(chains[0].dropsAtEnd);
  EXPECT_EQ(chains[1].family + " " + chains[1].table + " " + chains[1].name, "ip filter FORWARD");
  EXPECT_EQ(chains[1].tool, ForwardChain::Tool::iptables);
  EXPECT_FALSE(chains[1].dropsAtEnd);
}

TEST_F(Nft, KnowsTheLabelOfPinholes) {
  const auto accepts = [&](unsigned label, uint32_t operation) {
    return effectOf([&](Writer& w) {
      w.loadsCt(NFT_CT_LABELS).masksLabel(label).compares(operation, 0).verdict(NF_ACCEPT);
    });
  };
  EXPECT_EQ(accepts(125, NFT_CMP_NEQ), RuleEffect::acceptsPinholes);
  EXPECT_FALSE(found.chains().front().stopsPinholes("wan0"));
  EXPECT_TRUE(found.chains().front().stopsOpenPorts("wan0"));
  EXPECT_EQ(accepts(124, NFT_CMP_NEQ), RuleEffect::unknown);
  EXPECT_EQ(accepts(125, NFT_CMP_EQ), RuleEffect::unknown) << "what has not got it";
}

// Also proves [ctl-check-firewall].
TEST_F(Nft, KnowsWhatARuleDoes) {
  EXPECT_EQ(effectOf([](Writer& w) { w.statusDnat().counter().verdict(NF_ACCEPT); }),
            RuleEffect::acceptsOpenPorts);
  EXPECT_EQ(effectOf([](Writer& w) { w.someCondition().statusDnat().verdict(NF_ACCEPT); }),
            RuleEffect::acceptsOpenPorts);
  EXPECT_EQ(effectOf([](Writer& w) { w.counter().verdict(NF_ACCEPT); }), RuleEffect::acceptsAll);
  EXPECT_EQ(effectOf([](Writer& w) { w.counter().verdict(NF_DROP); }), RuleEffect::dropsAll);
  EXPECT_EQ(effectOf([](Writer& w) { w.counter().reject(); }), RuleEffect::dropsAll);
}

TEST_F(Nft, DoesNotKnowWhatDependsOnSomethingElse) {
  constexpr auto jump = static_cast<uint32_t>(NFT_JUMP);
  const std::vector<std::pair<std::function<void(Writer&)>, const char*>> rules = {
      {[](Writer& w) { w.someCondition().verdict(NF_ACCEPT); }, "some condition"},
      {[](Writer& w) { w.someCondition().verdict(NF_DROP); }, "some condition"},
      {[](Writer& w) { w.someCondition().reject(); }, "some condition"},
      {[](Writer& w) { w.statusDnat().verdict(NF_DROP); }, "drops open ports"},
      {[](Writer& w) { w.statusDnat(); }, "no verdict"},
      {[](Writer& w) { w.verdict(jump); }, "goes elsewhere"},
      {[](Writer& w) {
         w.loadsCt(NFT_CT_STATE).masks(IPS_DST_NAT).compares(NFT_CMP_NEQ, 0).verdict(NF_ACCEPT);
       },
       "the state, not the status"},
      {[](Writer& w) {
         w.loadsCt(NFT_CT_STATUS).masks(IPS_SRC_NAT).compares(NFT_CMP_NEQ, 0).verdict(NF_ACCEPT);
       },
       "translated sources"},
      {[](Writer& w) {
         w.loadsCt(NFT_CT_STATUS).masks(IPS_DST_NAT).compares(NFT_CMP_EQ, 0).verdict(NF_ACCEPT);
       },
       "what was not translated"},
      {[](Writer& w) {
         w.loadsCt(NFT_CT_STATUS).someCondition().masks(IPS_DST_NAT).verdict(NF_ACCEPT);
       },
       "masks something else"},
  };
  for (const auto& [expressions, reason] : rules) {
    EXPECT_EQ(effectOf(expressions), RuleEffect::unknown) << reason;
  }
}

TEST_F(Nft, KnowsTheInterfacesThatARuleNames) {
  const std::string wan = padded("wan0");
  using Links = std::vector<std::string>;
  const std::vector<std::tuple<const char*, Links, std::function<void(Writer&)>>> rules = {
      {"a name", Links{exactly("wan0")},
       [&](Writer& w) { w.loadsLink().comparesName(NFT_CMP_EQ, wan); }},
      {"the start of a name", Links{"ppp"},
       [](Writer& w) { w.loadsLink().comparesName(NFT_CMP_EQ, "ppp"); }},
      {"a counter between", Links{exactly("wan0")},
       [&](Writer& w) { w.counter().loadsLink().comparesName(NFT_CMP_EQ, wan); }},
      {"any but that", Links{}, [&](Writer& w) { w.loadsLink().comparesName(NFT_CMP_NEQ, wan); }},
      {"something else is compared", Links{},
       [&](Writer& w) { w.loadsLink().someCondition().comparesName(NFT_CMP_EQ, wan); }},
      {"another register is compared", Links{},
       [&](Writer& w) { w.loadsLink(NFT_REG_2).comparesName(NFT_CMP_EQ, wan); }}};
  for (const auto& [name, links, condition] : rules) {
    EXPECT_EQ(linksOf([&compares = condition](Writer& w) {
                compares(w);
                w.statusDnat().verdict(NF_ACCEPT);
              }),
              links)
        << name;
  }
}

TEST_F(Nft, KnowsTheInterfacesInTheSetOfARule) {
  const auto accepts = [](const std::string& set, uint32_t flags = 0) {
    return rule("forward", [&](Writer& w) {
      w.loadsLink().looksUp(set, flags).statusDnat().verdict(NF_ACCEPT);
    });
  };
  take(accepts("wans"));
  take(accepts("ranges"));
  take(accepts("lans", NFT_LOOKUP_F_INV));
  take(rule("forward", [](Writer& w) { w.loadsLink().looksUp("other").verdict(NF_ACCEPT); }));
  const auto key = [](const std::string& set) {
    return NftForwardChains::Key(NFPROTO_INET, "guard", set);
  };
  EXPECT_EQ(found.linkSets(), (std::set<NftForwardChains::Key>{key("ranges"), key("wans")}));
  EXPECT_EQ(found.chains().front().rules[0].links, std::vector<std::string>{}) << "not read yet";
  take(elements("wans", {padded("wan1")}));
  take(elements("wans", {padded("wan0")}));
  take(elements("ranges", {padded("ppp"), padded("ppq")}, 1));
  const std::vector<ForwardRule> rules = found.chains().front().rules;
  EXPECT_EQ(rules[0].links, (std::vector<std::string>{exactly("wan1"), exactly("wan0")}));
  EXPECT_EQ(rules[1].links, std::vector<std::string>{});
  EXPECT_EQ(rules[2].links, std::vector<std::string>{});
}

TEST_F(Nft, KeepsTheOrderOfRules) {
  take(rule("forward", [](Writer& w) { w.verdict(NF_DROP); }));
  take(rule("forward", [](Writer& w) { w.statusDnat().verdict(NF_ACCEPT); }));
  EXPECT_EQ(found.chains().front().rules,
            (Rules{{RuleEffect::dropsAll, {}}, {RuleEffect::acceptsOpenPorts, {}}}));
}

// Promise: `upnp check` is content with a rule for open ports in a chain that is jumped to, and
// with a firewall that drops only what it names.
TEST_F(Nft, FindsARuleForOpenPortsInAnotherChainOfTheTable) {
  take(rule("other", [](Writer& w) { w.verdict(NF_ACCEPT); }));
  take(rule("elsewhere", [](Writer& w) { w.statusDnat().verdict(NF_ACCEPT); }));
  take(rule(
      "other", [](Writer& w) { w.statusDnat().verdict(NF_ACCEPT); }, "another"));
  EXPECT_EQ(found.chains().front().elsewhere, Rules{});
  take(rule("other", [](Writer& w) { w.statusDnat().verdict(NF_ACCEPT); }));
  take(rule("other", [](Writer& w) { w.verdict(NF_DROP); }));
  EXPECT_EQ(found.chains().front().elsewhere, (Rules{{RuleEffect::acceptsOpenPorts, {}}}));
  EXPECT_EQ(found.chains().front().rules, Rules{});
}

TEST_F(Nft, KnowsTheFirewallThatManagesAChain) {
  using Manager = ForwardChain::Manager;
  take(chain("firewalld", "filter_FORWARD", NFPROTO_INET, NF_INET_FORWARD, NF_ACCEPT));
  take(chain("filter", "FORWARD", NFPROTO_IPV4, NF_INET_FORWARD, NF_DROP));
  Writer sameName(NFT_MSG_NEWCHAIN, NFPROTO_INET);
  take(sameName.text(NFTA_CHAIN_TABLE, "guard").text(NFTA_CHAIN_NAME, "ufw-before-forward"));
  const auto managers = [this] {
    std::map<std::string, Manager> byTable;
    for (const ForwardChain& each : found.chains()) byTable[each.table] = each.manager;
    return byTable;
  };
  EXPECT_EQ(managers(), (std::map<std::string, Manager>{{"firewalld", Manager::firewalld},
                                                        {"filter", Manager::none},
                                                        {"guard", Manager::none}}))
      << "ufw works with iptables only";
  Writer ufw(NFT_MSG_NEWCHAIN, NFPROTO_IPV4);
  take(ufw.text(NFTA_CHAIN_TABLE, "filter").text(NFTA_CHAIN_NAME, "ufw-before-forward"));
  EXPECT_EQ(managers()["filter"], Manager::ufw);
  EXPECT_EQ(managers()["firewalld"], Manager::firewalld);
}

TEST_F(Nft, IgnoresOtherAndInvalidMessages) {
  Writer whole = rule("forward", [](Writer& w) { w.statusDnat().verdict(NF_ACCEPT); });
  const uint32_t length = whole.message().nlmsg_len;
  for (uint32_t cut = sizeof(nlmsghdr); cut < length; ++cut) {
    whole.message().nlmsg_len = cut;
    found.take(whole.message());
  }
  whole.message().nlmsg_len = length;
  whole.message().nlmsg_type = NLMSG_DONE;
  found.take(whole.message());
  const auto chains = found.chains();
  for (const ForwardRule& each : chains.front().rules) {
    EXPECT_NE(each.effect, RuleEffect::dropsAll);
  }
}

}  // namespace
}  // namespace lumenctl
