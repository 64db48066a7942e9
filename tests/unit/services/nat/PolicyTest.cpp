#include "lumen/services/nat/Policy.h"
#include "platform/Store.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

// Promise [policy-default]: By default ports 1024 to 65535 may be opened, for hosts in networks of
// internal interfaces.
TEST(Policy, HasTheDefaultsThatAreDocumented) {
  Policy policy;
  EXPECT_EQ(policy.externalPorts.text(), "1024-65535");
  EXPECT_EQ(policy.internalClients.text(), "internal");
  EXPECT_EQ(policy.internalPorts.text(),
            "1-21, 24-134, 136, 140-444, 446-3388, 3390-5899, 5901-65535");
  EXPECT_EQ(policy.routerPorts.text(), "none");
  EXPECT_EQ(policy.maxRules, 4096U);
  EXPECT_EQ(policy.maxRulesPerClient, 128U);
}

// Promise [policy-ports]: Allowed ports are ports and ranges of ports, at most 64: `external-ports:
// "0" is neither a port from 1 to 65535 nor a range of ports`, `external-ports: more than 64 ranges
// of ports`.
TEST(Policy, TakesPortsAndRangesOfPorts) {
  Policy policy;
  EXPECT_EQ(whyNot(policy.set("external-ports", "80,443 , 6000-6999, 65535")), "");
  EXPECT_EQ(policy.externalPorts.text(), "80, 443, 6000-6999, 65535");
  for (const uint16_t port : std::initializer_list<uint16_t>{80, 443, 6000, 6500, 6999, 65535}) {
    EXPECT_TRUE(policy.externalPorts.contains(port)) << port;
  }
  for (const uint16_t port : std::initializer_list<uint16_t>{1, 79, 81, 5999, 7000, 65534}) {
    EXPECT_FALSE(policy.externalPorts.contains(port)) << port;
  }
}

// Promise [policy-clients]: Allowed clients are `internal`, `connected`, names of interfaces,
// addresses and networks, at most 64: `internal-clients: "::1" is neither "internal", "connected",
// an interface, an address nor a network like 192.168.88.0/24`, `internal-clients: "10.0.0.1/24"
// has bits set after its prefix`, `internal-clients: more than 64 interfaces and networks`.
TEST(Policy, TakesWordsInterfacesNetworksAndHosts) {
  using Known = KnownInterfaces::Known;
  const Known lan{.name = "br-lan", .index = 2, .internal = true};
  const Known other{.name = "guest0", .index = 3, .internal = false};
  Policy policy;
  const auto contains = [&policy](const char* host, const std::optional<Known>& interface) {
    return policy.internalClients.contains(ip(host), interface);
  };
  EXPECT_EQ(whyNot(policy.set("internal-clients", "10.1.2.3, connected,192.168.88.0/24")), "");
  EXPECT_EQ(policy.internalClients.text(), "connected, 10.1.2.3, 192.168.88.0/24");
  EXPECT_TRUE(contains("8.8.8.8", other));
  EXPECT_FALSE(contains("8.8.8.8", std::nullopt));
  EXPECT_TRUE(contains("10.1.2.3", std::nullopt));
  EXPECT_FALSE(contains("10.1.2.4", std::nullopt));
  EXPECT_TRUE(contains("192.168.88.200", std::nullopt));
  EXPECT_EQ(whyNot(policy.set("internal-clients", "0.0.0.0/0")), "");
  EXPECT_TRUE(contains("10.1.2.4", std::nullopt));

  EXPECT_EQ(whyNot(policy.set("internal-clients", "internal")), "");
  EXPECT_TRUE(contains("8.8.8.8", lan));
  EXPECT_FALSE(contains("8.8.8.8", other));
  EXPECT_FALSE(contains("8.8.8.8", std::nullopt));
  EXPECT_EQ(whyNot(policy.set("internal-clients", "guest0, eth0.7, 10.1.2.3, internal")), "");
  EXPECT_EQ(policy.internalClients.text(), "internal, guest0, eth0.7, 10.1.2.3");
  EXPECT_TRUE(contains("8.8.8.8", other));
  EXPECT_TRUE(contains("8.8.8.8", lan));
  EXPECT_EQ(whyNot(policy.set("internal-clients", "guest0")), "");
  EXPECT_FALSE(contains("8.8.8.8", lan));
}

/// Whether a client of UDP port 8080 of 45.45.45.1 is allowed.
class PolicyForClients : public ::testing::Test {
 protected:
  void allowNetworks(const std::string& text) {
    ASSERT_EQ(whyNot(policy.set("internal-clients", text)), "");
  }
  std::string refusalOf(const std::string& client) {
    const RuleKey key{.external = {.address = ip("45.45.45.1"), .port = 8080}, .protocol = 17};
    return whyNot(policy.allows(key, {ip(client), 53}, networks, networks));
  }

  FakeNetworks networks;
  Policy policy;
};

// Promise: By default no port leads to a host in a network that is not internal: `internal client
// 192.168.99.10 is not allowed by the policy`.
TEST_F(PolicyForClients, KeepsPortsOutOfOtherNetworks) {
  EXPECT_EQ(refusalOf("192.168.88.10"), "");
  EXPECT_EQ(refusalOf("192.168.99.10"),
            "internal client 192.168.99.10 is not allowed by the policy");
  allowNetworks("br-lan, guest0");
  EXPECT_EQ(refusalOf("192.168.99.10"), "");
}

TEST_F(PolicyForClients, LetsANetworkBeNarrowerThanWhatIsConnected) {
  allowNetworks("192.168.88.128/25, 10.0.0.0/8");
  EXPECT_EQ(refusalOf("192.168.88.129"), "");
  EXPECT_EQ(refusalOf("10.9.9.9"), "");
  EXPECT_EQ(refusalOf("192.168.88.127"),
            "internal client 192.168.88.127 is not allowed by the policy");
}

// Also proves [client-unicast], [client-router], [client-side].
TEST_F(PolicyForClients, NeverAllowsTheRouterNorTheSideOfTheExternalAddress) {
  allowNetworks("0.0.0.0/0");
  EXPECT_EQ(refusalOf("45.45.45.9"),
            "internal client 45.45.45.9 is on the side of the external address");
  EXPECT_EQ(refusalOf("192.168.88.1"), "internal client 192.168.88.1 is this router");
  EXPECT_EQ(refusalOf("239.255.255.250"),
            "internal client 239.255.255.250 is not the address of a host");
  networks.loopback = {ip("192.168.88.53")};
  EXPECT_EQ(refusalOf("192.168.88.53"), "internal client 192.168.88.53 is this router");
}

// Promise [client-broadcast]: An address that reaches many hosts of a connected network, its
// broadcast address or its own, is refused whatever the policy says: `internal client
// 192.168.88.255 is not the address of a host`.
TEST_F(PolicyForClients, NeverAllowsAnAddressThatReachesSeveralHosts) {
  allowNetworks("192.168.88.0/24, 45.45.45.0/24");
  for (const std::string address :
       {"192.168.88.255", "192.168.88.0", "45.45.45.255", "45.45.45.0"}) {
    EXPECT_EQ(refusalOf(address), "internal client " + address + " is not the address of a host");
  }
}

// Promise [policy-maxima]: `max-rules` and `max-rules-per-client` are from 0 to 65536: `max-rules:
// "65537" is not a number from 0 to 65536`.
// Also proves [policy-ports], [policy-clients].
TEST(Policy, NamesTheErrorInAValueAndKeepsTheOldOne) {
  struct Row {
    const char* name;
    std::string value;
    const char* reason;
  };
  std::string manyPorts = "1";
  std::string manyClients = "10.0.0.1";
  for (int i = 0; i < 64; ++i) {
    manyPorts += ",1";
    manyClients += ",10.0.0.1";
  }
#define NO_PORT " is neither a port from 1 to 65535 nor a range of ports"
#define NO_NETWORK                                                                        \
  " is neither \"internal\", \"connected\", an interface, an address nor a network like " \
  "192.168.88.0/24"
  const Row rows[] = {
      {"external-ports", "", "external-ports: \"\"" NO_PORT},
      {"external-ports", "0", "external-ports: \"0\"" NO_PORT},
      {"external-ports", "65536", "external-ports: \"65536\"" NO_PORT},
      {"external-ports", "20-10", "external-ports: \"20-10\"" NO_PORT},
      {"external-ports", "-5", "external-ports: \"-5\"" NO_PORT},
      {"external-ports", "+5", "external-ports: \"+5\"" NO_PORT},
      {"external-ports", "5-", "external-ports: \"5-\"" NO_PORT},
      {"external-ports", "80,", "external-ports: \"\"" NO_PORT},
      {"external-ports", "0x50", "external-ports: \"0x50\"" NO_PORT},
      {"external-ports", "http", "external-ports: \"http\"" NO_PORT},
      {"external-ports", "99999999999999999999",
       "external-ports: \"99999999999999999999\"" NO_PORT},
      {"external-ports", manyPorts, "external-ports: more than 64 ranges of ports"},
      {"internal-clients", "", "internal-clients: \"\"" NO_NETWORK},
      {"internal-clients", "br lan", "internal-clients: \"br lan\"" NO_NETWORK},
      {"internal-clients", "br-lan/24", "internal-clients: \"br-lan/24\"" NO_NETWORK},
      {"internal-clients", "sixteen-letters.", "internal-clients: \"sixteen-letters.\"" NO_NETWORK},
      {"internal-clients", "10.0.0", "internal-clients: \"10.0.0\"" NO_NETWORK},
      {"internal-clients", "10.0.0.0/33", "internal-clients: \"10.0.0.0/33\"" NO_NETWORK},
      {"internal-clients", "10.0.0.0/", "internal-clients: \"10.0.0.0/\"" NO_NETWORK},
      {"internal-clients", "010.0.0.0/8", "internal-clients: \"010.0.0.0/8\"" NO_NETWORK},
      {"internal-clients", "::1", "internal-clients: \"::1\"" NO_NETWORK},
      {"internal-clients", "10.0.0.1/24",
       "internal-clients: \"10.0.0.1/24\" has bits set after its prefix"},
      {"internal-clients", manyClients, "internal-clients: more than 64 interfaces and networks"},
      {"max-rules", "", "max-rules: \"\" is not a number from 0 to 65536"},
      {"max-rules", "65537", "max-rules: \"65537\" is not a number from 0 to 65536"},
      {"max-rules-per-client", "many",
       "max-rules-per-client: \"many\" is not a number from 0 to 65536"},
      {"max-rule", "5", "\"max-rule\" is not a setting"},
  };
#undef NO_PORT
#undef NO_NETWORK
  Policy policy;
  for (const Row& row : rows) EXPECT_EQ(whyNot(policy.set(row.name, row.value)), row.reason);
  EXPECT_NE(whyNot(policy.set("internal-clients", std::string("10.0.0.1\0x", 10))), "");
  EXPECT_EQ(policy.externalPorts.text(), "1024-65535");
  EXPECT_EQ(policy.internalClients.text(), "internal");
  EXPECT_EQ(policy.maxRules, 4096U);
}

class PolicyBookTest : public ::testing::Test {
 protected:
  std::string loads(const std::string& content) {
    directory.write("nat-policy", content);
    return whyNot(book.load());
  }
  [[nodiscard]] std::string ports() const {
    return book.settings().get_string(lm::nat::key::externalPorts);
  }
  static lm::message portsOnly(const std::string& ports) {
    lm::message request;
    request.insert_u32(lm::key::serial, 12);
    request.insert_string(lm::nat::key::externalPorts, ports);
    return request;
  }

  static lm::message reset() { return flagOnly(lm::nat::key::reset); }
  static lm::message reload() { return flagOnly(lm::nat::key::reload); }
  static lm::message flagOnly(uint32_t field) {
    lm::message request;
    request.insert_bool(field, true);
    return request;
  }

  lm::test::TempDir directory;
  std::string filePath = directory.file("nat-policy");
  PolicyBook book{filePath, directory.path()};
};

// Promise [policy-error]: The policy file has lines `name = value`; anything else in it is refused
// with its line, and lumend does not start: `lumend: NAT policy: /lumen/etc/nat-policy:1: ` and the
// reason.
TEST_F(PolicyBookTest, ReadsTheFile) {
  EXPECT_EQ(loads("; comment\nexternal-ports = 80 ; web\ninternal-clients = 10.0.0.0/8\n"
                  "internal-ports = 80, 443\nrouter-ports = none\n"
                  "max-rules = 7\nmax-rules-per-client = 0\n"),
            "");
  lm::message expected;
  expected.insert_string(0x20010030, "80");
  expected.insert_string(0x20010031, "10.0.0.0/8");
  expected.insert_string(0x20010037, "80, 443");
  expected.insert_string(0x20010036, "none");
  expected.insert_u32(0x10032, 7);
  expected.insert_u32(0x10033, 0);
  EXPECT_EQ(book.settings(), expected);
}

// Also proves [policy-default].
TEST_F(PolicyBookTest, UsesTheDefaultsWithoutAFile) {
  EXPECT_EQ(whyNot(book.load()), "");
  EXPECT_EQ(ports(), "1024-65535");
}

// Also proves [policy-default].
TEST_F(PolicyBookTest, ReadsTheFileThatIsInstalled) {
  PolicyBook installed(NAT_POLICY_FILE, directory.path());
  EXPECT_EQ(whyNot(installed.load()), "");
  PolicyBook defaults(filePath, directory.path());
  EXPECT_EQ(whyNot(defaults.load()), "");
  EXPECT_EQ(installed.settings(), defaults.settings());
}

// Promise [policy-file]: A policy file of more than 16384 bytes, or that is no text, is refused:
// `is too long`, `is no text`.
// Also proves [policy-error].
TEST_F(PolicyBookTest, RefusesAFileThatItDoesNotUnderstandCompletely) {
  struct Row {
    const char* content;
    const char* reason;
  };
  const Row rows[] = {
      {"external-ports = 80\nexternal-ports = 81\n", ":2: \"external-ports\" is set twice"},
      {"max-rules = 5\n\nports = 80\n", ":3: \"ports\" is not a setting"},
      {"[policy]\nmax-rules = 5\n", ":2: sections are not used"},
      {"max-rules = -1\n", ":1: max-rules: \"-1\" is not a number from 0 to 65536"},
      {"max-rules = 5\n; \xff\nmax", ":3: not a line of the form name = value"},
      {"max-rules\n", ":1: not a line of the form name = value"},
  };
  for (const Row& row : rows) EXPECT_EQ(loads(row.content), filePath + row.reason);
  EXPECT_EQ(loads(std::string("max-rules = 5\n\0external-ports = 80\n", 34)),
            filePath + ": is no text");
  EXPECT_EQ(loads(std::string(16385, '\n')), filePath + ": is too long");
}

// Promise [policy-line]: A line of the policy file of more than 190 bytes is refused, so that the
// end of a comment is no setting: `:2: the line is too long`.
TEST_F(PolicyBookTest, RefusesALineThatItsParserWouldCutInTwo) {
  const std::string tooLong = filePath + ":2: the line is too long";
  EXPECT_EQ(loads("\nexternal-ports = 80" + std::string(172, ' ') + "\n"), tooLong);
  EXPECT_EQ(loads("\nexternal-ports = 80" + std::string(171, ' ') + "\n"), "");
  EXPECT_EQ(ports(), "80");
  EXPECT_EQ(loads("\n; " + std::string(197, 'x') + "external-ports = 1-65535\n"), tooLong)
      << "the end of a comment is no setting";
  EXPECT_EQ(ports(), "80");
}

// Also proves [policy-error].
TEST_F(PolicyBookTest, RefusesAFileThatItCannotRead) {
  std::filesystem::create_directory(filePath);
  EXPECT_EQ(whyNot(book.load()), filePath + ": is no plain file");
}

// Promise [policy-set]: What an administrator sets wins over the file and survives restarts; what
// was not set comes from the file.
TEST_F(PolicyBookTest, KeepsWhatIsSetByCommandOverTheFile) {
  ASSERT_EQ(loads("external-ports = 80\nmax-rules = 7\n"), "");
  EXPECT_EQ(whyNot(book.write(portsOnly("2000-3000"))), "");
  EXPECT_EQ(ports(), "2000-3000");

  directory.write("nat-policy", "external-ports = 81\nmax-rules = 8\n");
  PolicyBook later(filePath, directory.path());
  EXPECT_EQ(whyNot(later.load()), "");
  EXPECT_EQ(later.policy().externalPorts.text(), "2000-3000");
  EXPECT_EQ(later.policy().maxRules, 8U) << "what was not set still comes from the file";
}

// Promise: A stored policy that lumend does not understand is refused: `stored NAT policy: ` and
// what is wrong.
TEST_F(PolicyBookTest, RefusesAStoredSettingThatItDoesNotUnderstand) {
  EXPECT_TRUE(lm::Store(directory.path(), 1).set(0, portsOnly("http")));
  EXPECT_EQ(whyNot(book.load()),
            "stored NAT policy: external-ports: \"http\" is neither a port from 1 to 65535 nor a "
            "range of ports");
}

TEST_F(PolicyBookTest, ReportsTheFirstError) {
  EXPECT_EQ(loads("max-rules = many\nmax-rule = 5\n"),
            filePath + ":1: max-rules: \"many\" is not a number from 0 to 65536");
}

// Promise: A reset forgets all that was set.
TEST_F(PolicyBookTest, ForgetsWhatWasSetOnAReset) {
  ASSERT_EQ(loads("external-ports = 80\n"), "");
  ASSERT_EQ(whyNot(book.write(portsOnly("2000"))), "");
  EXPECT_EQ(whyNot(book.write(reset())), "");
  EXPECT_EQ(ports(), "80");
  PolicyBook later(filePath, directory.path());
  EXPECT_EQ(whyNot(later.load()), "");
  EXPECT_EQ(later.policy().externalPorts.text(), "80");
}

// Also proves [ctl-reload].
TEST_F(PolicyBookTest, ReadsTheFileAgainOnAReload) {
  ASSERT_EQ(loads("external-ports = 80\nmax-rules = 7\n"), "");
  lm::message limit;
  limit.insert_u32(lm::nat::key::maxRules, 5);
  ASSERT_EQ(whyNot(book.write(limit)), "");
  directory.write("nat-policy", "external-ports = 81\nmax-rules = 8\n");
  EXPECT_EQ(whyNot(book.write(portsOnly("82"))), "");
  EXPECT_EQ(ports(), "82");
  EXPECT_EQ(whyNot(book.write(reset())), "");
  EXPECT_EQ(ports(), "80") << "no other write reads it";
  ASSERT_EQ(whyNot(book.write(limit)), "");
  EXPECT_EQ(whyNot(book.write(reload())), "");
  EXPECT_EQ(ports(), "81");
  EXPECT_EQ(book.policy().maxRules, 5U) << "what was set by command wins";
  EXPECT_EQ(whyNot(book.write(reset())), "");
  EXPECT_EQ(book.policy().maxRules, 8U);
}

// Promise [policy-reload]: A policy file with anything wrong in it is refused at a reload, with its
// line, and the old policy stays.
TEST_F(PolicyBookTest, KeepsThePolicyWhenTheFileIsWrongOnAReload) {
  ASSERT_EQ(loads("external-ports = 80\n"), "");
  directory.write("nat-policy", "max-rules = 8\nexternal-ports = all\n");
  EXPECT_EQ(whyNot(book.write(reload())),
            filePath +
                ":2: external-ports: \"all\" is neither a port from 1 to 65535 "
                "nor a range of ports");
  EXPECT_EQ(ports(), "80");
  EXPECT_EQ(book.policy().maxRules, 4096U);
  lm::message both = reset();
  both.insert_bool(lm::nat::key::reload, true);
  EXPECT_FALSE(book.write(both));
  std::filesystem::remove(filePath);
  std::filesystem::create_directory(filePath);
  EXPECT_EQ(whyNot(book.write(reload())), filePath + ": is no plain file");
  EXPECT_EQ(ports(), "80");
}

// Also proves [ctl-reload].
TEST_F(PolicyBookTest, TakesTheDefaultsWhenTheFileIsGoneOnAReload) {
  ASSERT_EQ(loads("external-ports = 80\n"), "");
  std::filesystem::remove(filePath);
  EXPECT_EQ(whyNot(book.write(reload())), "");
  EXPECT_EQ(ports(), "1024-65535");
}

// Promise [ctl-reload-disk]: A reload needs no room on the disk.
TEST_F(PolicyBookTest, NeedsNoRoomOnTheDiskForAReload) {
  PolicyBook lost(filePath, directory.file("missing"));
  ASSERT_EQ(whyNot(lost.load()), "");
  directory.write("nat-policy", "external-ports = 81\n");
  EXPECT_EQ(whyNot(lost.write(reload())), "");
  EXPECT_EQ(lost.policy().externalPorts.text(), "81");
}

// Promise: A policy write with a wrong value or an unknown field changes nothing, nor does one that
// cannot be stored: `the policy could not be stored`.
// Also proves [policy-maxima].
TEST_F(PolicyBookTest, ChangesNothingWhenAValueIsWrong) {
  ASSERT_EQ(whyNot(book.load()), "");
  lm::message request = portsOnly("2000");
  request.insert_u32(lm::nat::key::maxRules, 70000);
  EXPECT_EQ(whyNot(book.write(request)), "max-rules: \"70000\" is not a number from 0 to 65536");
  lm::message unknown = portsOnly("2000");
  unknown.insert_u32(0x10099, 1);
  EXPECT_EQ(whyNot(book.write(unknown)), "field 0x08010099 is not known here");
  EXPECT_EQ(ports(), "1024-65535");
}

TEST_F(PolicyBookTest, ChangesNothingWhenItCannotBeStored) {
  PolicyBook lost(filePath, directory.file("missing"));
  ASSERT_EQ(whyNot(lost.load()), "");
  EXPECT_EQ(whyNot(lost.write(portsOnly("2000"))), "the policy could not be stored");
  EXPECT_EQ(lost.policy().externalPorts.text(), "1024-65535");
}

using NatPolicyCommandTest = NatFixture;

// Promise [policy-later]: The policy is read and written by administrators only, counts for ports
// that are opened or changed from then on, and leaves open ports alone.
TEST_F(NatPolicyCommandTest, IsReadAndWrittenByTheAdministratorOnly) {
  lm::message request;
  request.insert_string(lm::nat::key::externalPorts, "5000-5999");
  EXPECT_EQ(asks(daemon, lm::cmd::set, request), "not permitted");
  EXPECT_EQ(asks(daemon, lm::cmd::get, {}), "not permitted");
  EXPECT_EQ(asks(admin, lm::cmd::set, request), "");
  EXPECT_EQ(rules.handle(admin, lm::cmd::get, {}).get_string(lm::nat::key::externalPorts),
            "5000-5999");
  EXPECT_EQ(refusedToOpen({.port = 4999}), "external port 4999 is not allowed by the policy");
  opens({.port = 5000});
}

// Also proves [policy-later].
TEST_F(NatPolicyCommandTest, LeavesPortsThatAreOpenAlone) {
  uint32_t id = opens({});
  kernelTexts();
  restrictsPortsTo("9000");
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)),
            "external port 8080 is not allowed by the policy");
  EXPECT_EQ(removes(id), "");
}

}  // namespace

}  // namespace lumen::test
