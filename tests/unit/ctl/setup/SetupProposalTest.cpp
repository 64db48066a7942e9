#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumen/ctl/setup/SetupProposal.h"
#include "lumen/ctl/text/Errors.h"

namespace lumenctl {
namespace {

using Names = std::vector<std::string>;

Candidate ethernet(const std::string& name, const Names& addresses) {
  Candidate candidate;
  candidate.name = name;
  candidate.ethernet = true;
  for (const std::string& address : addresses) {
    candidate.addresses.push_back(*lumen::Ipv4Address::parse(address));
  }
  return candidate;
}

Candidate bridge(const std::string& name, const Names& addresses) {
  Candidate candidate = ethernet(name, addresses);
  candidate.bridge = true;
  return candidate;
}

Candidate tunnel(const std::string& name, const Names& addresses) {
  Candidate candidate = ethernet(name, addresses);
  candidate.ethernet = false;
  return candidate;
}

/// "br-lan: why, guest0: why | wan0: why", or the text of the refusal.
std::string propose(const std::vector<Candidate>& candidates,
                    const std::vector<DefaultRoute>& routes, const Names& internal = {},
                    const std::string& external = {}) {
  const lumen::Result<Proposal> proposed = proposeRoles(candidates, routes, internal, external);
  if (!proposed) return proposed.why();
  const Proposal& proposal = *proposed;
  std::string text;
  for (const Proposal::Part& part : proposal.internal) {
    text += (text.empty() ? "" : ", ") + part.name + ": " + part.reason;
  }
  return text + " | " + proposal.external.name + ": " + proposal.external.reason;
}

const std::vector<Candidate> homeRouter = {bridge("br-lan", {"192.168.88.1"}), ethernet("lan0", {}),
                                           ethernet("wan0", {"45.45.45.1"})};

// Promise [ctl-propose]: `upnp setup` without roles proposes them: the interface of the default
// route as external, Ethernet links with an address of a private network and bridges with an
// address as internal, with the reason for each; another way out and a tunnel are neither.
TEST(SetupProposal, TakesTheInterfaceOfTheDefaultRouteAsExternal) {
  EXPECT_EQ(propose(homeRouter, {{"wan0", 0}}),
            "br-lan: bridge, private network (192.168.88.1) | wan0: default route");
}

// Also proves [ctl-propose].
TEST(SetupProposal, TakesALinkWithAPrivateAddressAsInternal) {
  for (const std::string address : {"10.0.0.1", "172.16.0.1", "172.31.255.1", "192.168.0.1"}) {
    EXPECT_EQ(propose({ethernet("wan0", {}), ethernet("eth1", {address})}, {{"wan0", 0}}),
              "eth1: private network (" + address + ") | wan0: default route");
  }
}

// Also proves [ctl-propose].
TEST(SetupProposal, TakesABridgeWithAnyAddressAsInternal) {
  EXPECT_EQ(propose({ethernet("wan0", {}), bridge("br0", {"45.46.0.1"})}, {{"wan0", 0}}),
            "br0: bridge (45.46.0.1) | wan0: default route");
}

TEST(SetupProposal, FindsAPrivateAddressAfterAnother) {
  EXPECT_EQ(
      propose({ethernet("wan0", {}), ethernet("eth1", {"45.46.0.1", "10.1.0.1"})}, {{"wan0", 0}}),
      "eth1: private network (10.1.0.1) | wan0: default route");
}

TEST(SetupProposal, TakesAPrivateNetworkWithTheDefaultRouteAsExternal) {
  EXPECT_EQ(
      propose({ethernet("eth0", {"192.168.1.2"}), ethernet("eth1", {"10.0.0.1"})}, {{"eth0", 0}}),
      "eth1: private network (10.0.0.1) | eth0: default route");
}

// Also proves [ctl-propose].
TEST(SetupProposal, LeavesOutLinksWithoutHomeHosts) {
  const std::vector<std::pair<Candidate, const char*>> others = {
      {ethernet("eth1", {}), "no address: a port of a bridge"},
      {bridge("br1", {}), "no address"},
      {ethernet("dmz", {"45.46.0.1"}), "public and no bridge"},
      {ethernet("eth1", {"172.32.0.1"}), "after the end of 172.16.0.0/12"},
      {ethernet("eth1", {"100.64.0.1"}), "carrier-grade, not private"},
      {tunnel("wg0", {"10.9.0.1"}), "a tunnel"},
      {ethernet("lte0", {"192.168.8.100"}), "another way out"},
  };
  for (const auto& [other, reason] : others) {
    EXPECT_EQ(propose({bridge("br-lan", {"192.168.88.1"}), other, tunnel("ppp0", {"45.45.45.1"})},
                      {{"ppp0", 0}, {"lte0", 700}}),
              "br-lan: bridge, private network (192.168.88.1) | ppp0: default route")
        << reason;
  }
}

// Promise [ctl-propose-rest]: `upnp setup` with only `--internal` or only `--external` proposes the
// rest, and says which roles would end.
TEST(SetupProposal, ProposesOnlyWhatIsNotGiven) {
  EXPECT_EQ(propose(homeRouter, {{"wan0", 0}}, {"lan0", "br-x"}),
            "lan0: as given, br-x: as given | wan0: default route");
  EXPECT_EQ(propose(homeRouter, {{"wan0", 0}}, {}, "ppp0"),
            "br-lan: bridge, private network (192.168.88.1) | ppp0: as given");
  EXPECT_EQ(
      propose({ethernet("eth1", {"10.0.0.1"}), ethernet("eth2", {"10.0.1.1"})}, {}, {}, "eth1"),
      "eth2: private network (10.0.1.1) | eth1: as given");
}

TEST(SetupProposal, TakesTheNextDefaultRouteWhenTheFirstIsToBeInternal) {
  EXPECT_EQ(
      propose({ethernet("eth0", {}), ethernet("lte0", {})}, {{"eth0", 0}, {"lte0", 700}}, {"eth0"}),
      "eth0: as given | lte0: default route");
}

// Promise [ctl-nothing-proposed]: When no interface looks like an external or an internal one,
// `upnp setup` says why and ends with 1: `no interface looks like the external one: there is no
// default route. Say which one it is: --external IF`.
TEST(SetupProposal, SaysWhyNothingCanBeExternal) {
  EXPECT_EQ(propose(homeRouter, {}),
            "no interface looks like the external one: there is no default route. Say which one it "
            "is: --external IF");
  EXPECT_EQ(propose(homeRouter, {{"wan0", 0}}, {"wan0"}),
            "no interface looks like the external one: the default route goes through wan0, "
            "which is to be internal. Say which one it is: --external IF");
}

TEST(SetupProposal, IgnoresADefaultRouteThroughAnUnknownLink) {
  EXPECT_EQ(propose(homeRouter, {{"elsewhere", 0}}), propose(homeRouter, {}));
}

// Also proves [ctl-nothing-proposed].
TEST(SetupProposal, SaysWhyNothingCanBeInternal) {
  EXPECT_EQ(propose({ethernet("wan0", {"192.168.1.2"}), ethernet("eth1", {})}, {{"wan0", 0}}),
            "no interface looks like an internal one: besides wan0 none is an Ethernet link that "
            "has an address of a private network, or a bridge that has an address. Say which ones "
            "they are: --internal IF...");
}

}  // namespace
}  // namespace lumenctl
