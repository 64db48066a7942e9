// What the service file grants of open ports.

#include <chrono>

#include "lumen/services/nat/NatRules.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;
using lm::nat::Refusal;

class PortGrantTest : public NatFixture {
 protected:
  /// "" when it is granted; its number goes to `code`.
  std::string adds(const Caller& caller, const Port& port) {
    const lm::message reply = rules.handle(caller, lm::cmd::addObject, addRequest(port));
    if (lm::isError(reply)) code = lm::nat::readDenial(reply).why;
    return lm::getError(reply);
  }

  std::optional<Refusal> code;
  Caller pcp{.connection = 20, .service = 41, .name = "pcp", .ports = PortGrant()};
};

}  // namespace

// Promise: A service whose file does not say `ports = yes` may open none: `its
// service file does not say "ports = yes"`.
TEST_F(PortGrantTest, LetsAServiceOpenPortsWhoseFileSaysSo) {
  EXPECT_EQ(adds(pcp, {.port = 8080}), "");
  pcp.ports.reset();
  EXPECT_EQ(adds(pcp, {.port = 8081}), "its service file does not say \"ports = yes\"");
  EXPECT_EQ(code, Refusal::rights);
  EXPECT_EQ(adds(admin, {.port = 8081}), "") << "an administrator needs no file";
  EXPECT_EQ(asks(pcp, lm::cmd::removeObject, idOnly(1)), "") << "what it has it may remove";
}

TEST_F(PortGrantTest, AsksForTheGrantBeforeAnythingElse) {
  pcp.ports.reset();
  EXPECT_EQ(adds(pcp, {.port = 80, .client = "8.8.8.8", .external = "1.2.3.4"}),
            "its service file does not say \"ports = yes\"");
}

// Promise: A service that opens ports is told by which port another service or the administrator
// has opened a client's port, and nothing else of their rules.
TEST_F(PortGrantTest, TellsWhichPortOfOthersLeadsToAClient) {
  const auto found = [&](const Caller& caller, const Port& port) {
    const lm::message reply = rules.handle(caller, lm::nat::findOther, addRequest(port));
    return std::to_string(reply.get_u32(lm::nat::key::portFirst)) + lm::getError(reply);
  };
  EXPECT_EQ(found(pcp, {}), "0");
  opensAs(pcp, {.port = 5000});
  EXPECT_EQ(found(pcp, {}), "0") << "it is its own";
  opens({.port = 5001, .clientPort = 81});
  opens({.port = 5002, .client = "192.168.88.11"});
  opens({.protocol = "udp", .port = 5003});
  EXPECT_EQ(found(pcp, {}), "0") << "another port, client and protocol";
  const uint32_t id = opens({.port = 5004});
  EXPECT_EQ(found(pcp, {}), "5004");
  EXPECT_EQ(found(admin, {}), "5000");
  EXPECT_EQ(found(pcp, {.external = "1.2.3.4"}), "0");
  EXPECT_EQ(asks(daemon, lm::cmd::setObject, setRequest(id, "192.168.88.10", 80, true)), "");
  EXPECT_EQ(found(pcp, {}), "0") << "it is disabled";
  opensAs(admin, {.port = 5005});
  EXPECT_EQ(found(pcp, {}), "5005");
  pcp.ports.reset();
  EXPECT_EQ(found(pcp, {}), "0not permitted");
}

TEST_F(PortGrantTest, TellsOfNoPortThatIsOpenToSomeNetworksAlone) {
  startsWith(wholeTable);
  opens({.port = 5000, .from = {"198.51.100.0/24"}});
  const lm::message reply = rules.handle(pcp, lm::nat::findOther, addRequest({}));
  EXPECT_EQ(lm::getError(reply), "");
  EXPECT_EQ(reply.get_u32(lm::nat::key::portFirst, 1), 0U);
}

// Promise: A service has at most as many rules at a time as its file says by `most-ports`: `service
// pcp has all the rules that its file allows it, 2`.
TEST_F(PortGrantTest, HoldsTheNumberOfPortsOfAService) {
  pcp.ports->most = 2;
  Caller second = pcp;
  second.connection = 21;
  opens({.port = 5000});
  const uint32_t first = opensAs(pcp, {.port = 5001});
  opensAs(second, {.port = 5002, .disabled = true, .lease = 10});
  EXPECT_EQ(adds(pcp, {.port = 5003}), "service pcp has all the rules that its file allows it, 2");
  EXPECT_EQ(code, Refusal::full);
  EXPECT_EQ(adds(second, {.port = 5003, .anyPort = true}),
            "service pcp has all the rules that its file allows it, 2");
  opens({.port = 5004});
  EXPECT_EQ(asks(pcp, lm::cmd::setObject, setRequest(first, "192.168.88.11", 80, true)), "")
      << "that is none more";
  EXPECT_EQ(asks(pcp, lm::cmd::removeObject, idOnly(first)), "");
  EXPECT_EQ(adds(pcp, {.port = 5003}), "");
  passes(10s);
  EXPECT_EQ(adds(pcp, {.port = 5005}), "") << "the lease of 5002 is over";
  rules.connectionEnded(pcp.connection);
  EXPECT_EQ(adds(second, {.port = 5006}), "");
  EXPECT_EQ(adds(second, {.port = 5007}), "");
  EXPECT_NE(adds(second, {.port = 5008}), "");
}

// Promise: A service whose file says `longest-lease` has ports for no longer than that: `the
// longest lease that its service file allows is 3600 seconds`.
TEST_F(PortGrantTest, HoldsTheLongestLeaseOfAService) {
  const std::string refusal = "the longest lease that its service file allows is 3600 seconds";
  pcp.ports->longestLease = 1h;
  EXPECT_EQ(adds(pcp, {}), refusal) << "a permanent rule";
  EXPECT_EQ(code, Refusal::rights);
  EXPECT_EQ(adds(pcp, {.lease = 3601}), refusal);
  const uint32_t id = opensAs(pcp, {.lease = 3600});
  passes(30min);
  const lm::message tooLong = rules.handle(pcp, lm::cmd::setObject, renewal(id, 3601));
  EXPECT_EQ(lm::getError(tooLong), refusal);
  EXPECT_EQ(lm::nat::readDenial(tooLong).why, Refusal::rights);
  EXPECT_EQ(asks(pcp, lm::cmd::setObject, renewal(id, 3600)), "");
  EXPECT_EQ(asks(pcp, lm::cmd::setObject, setRequest(id, "192.168.88.10", 80, true)), "")
      << "this renews nothing";
  EXPECT_EQ(asks(admin, lm::cmd::setObject, renewal(id, 3601)), "");
  EXPECT_EQ(adds(admin, {.port = 9000}), "");
}

}  // namespace lumen::test
