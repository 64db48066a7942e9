// The numbers of the platform's messages: a program that was built earlier, or in another language,
// speaks them too.

#include <gtest/gtest.h>

#include "platform/wire/Addresses.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Gateway.h"
#include "platform/wire/History.h"
#include "platform/wire/Identity.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"
#include "platform/wire/Resolver.h"

namespace lumen {
namespace {

// Promise [numbers]: The numbers of all commands and fields are fixed, so that a program that was
// built earlier is understood.
TEST(WireNumbers, OfTheBroker) {
  EXPECT_EQ(lm::broker::cmd::registerServices, 0x10U);
  EXPECT_EQ(lm::broker::cmd::subscribe, 0x11U);
  EXPECT_EQ(lm::broker::cmd::unsubscribe, 0x12U);
  EXPECT_EQ(lm::broker::cmd::unregisterServices, 0x13U);
  EXPECT_EQ(lm::broker::cmd::services, 0x14U);
  EXPECT_EQ(lm::broker::cmd::monitor, 0x15U);
  EXPECT_EQ(lm::broker::cmd::cancel, 0x16U);
  EXPECT_EQ(lm::broker::key::services, 0x88000001U);
  EXPECT_EQ(lm::broker::key::topicCommand, 0x08000001U);
  EXPECT_EQ(lm::broker::key::topicSource, 0x88000002U);
  EXPECT_EQ(lm::monitor::key::on, 0x00000001U);
  EXPECT_EQ(lm::monitor::key::message, 0x28000001U);
  EXPECT_EQ(lm::monitor::key::from, 0x08000002U);
  EXPECT_EQ(lm::monitor::key::to, 0x08000003U);
  EXPECT_EQ(lm::monitor::key::cut, 0x00000004U);
  EXPECT_EQ(lm::monitor::anonymous, 0x10000U);
  EXPECT_EQ(lm::monitor::subscribers, 0xFFFFFFFFU);
  EXPECT_EQ(lm::broker::listed::number, 0x08fe0001U);
  EXPECT_EQ(lm::broker::listed::name, 0x20010005U);
  EXPECT_EQ(lm::broker::listed::state, 0x20000001U);
  EXPECT_EQ(lm::broker::listed::pid, 0x08000002U);
  EXPECT_EQ(lm::broker::listed::restarts, 0x08000003U);
  EXPECT_EQ(lm::broker::listed::nextStart, 0x10000004U);
  EXPECT_EQ(lm::broker::listed::residentMemory, 0x10000005U);
  EXPECT_EQ(lm::broker::listed::program, 0x20000006U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAPinhole) {
  EXPECT_EQ(lm::pinholes::path(), (std::vector<uint32_t>{20, 7}));
  EXPECT_EQ(lm::pinholes::key::address, 0x20000001U);
  EXPECT_EQ(lm::pinholes::key::protocol, 0x08000002U);
  EXPECT_EQ(lm::pinholes::key::port, 0x08000003U);
  EXPECT_EQ(lm::pinholes::key::lease, 0x08000004U);
  EXPECT_EQ(lm::pinholes::key::remotes, 0x20000005U);
  EXPECT_EQ(lm::pinholes::key::owner, 0x20000010U);
  EXPECT_EQ(lm::pinholes::key::seconds, 0x10000011U);
  EXPECT_EQ(lm::pinholes::key::ended, 0x08000012U);
  EXPECT_EQ(lm::pinholes::key::refusal, 0x08000020U);
  EXPECT_EQ(lm::pinholes::key::problem, 0x20000030U);
  EXPECT_EQ(lm::pinholes::key::remotesPossible, 0x00000031U);
  EXPECT_EQ(static_cast<uint32_t>(lm::pinholes::Refusal::other), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::pinholes::Refusal::notPrepared), 7U);
  EXPECT_EQ(static_cast<uint32_t>(lm::pinholes::End::lease), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::pinholes::End::addressGone), 3U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAnInterface) {
  EXPECT_EQ(lm::interfaces::key::hardwareType, 0x08010001U);
  EXPECT_EQ(lm::interfaces::key::flags, 0x08010003U);
  EXPECT_EQ(lm::interfaces::key::index, 0x08010004U);
  EXPECT_EQ(lm::interfaces::key::name, 0x20010005U);
  EXPECT_EQ(lm::interfaces::key::displayName, 0x20010006U);
  EXPECT_EQ(lm::interfaces::key::running, 0x0001000eU);
  EXPECT_EQ(lm::interfaces::key::role, 0x08010010U);
  EXPECT_EQ(lm::interfaces::key::bytesReceived, 0x100100fcU);
  EXPECT_EQ(lm::interfaces::key::bytesSent, 0x100100fdU);
  EXPECT_EQ(lm::interfaces::key::packetsReceived, 0x100100feU);
  EXPECT_EQ(lm::interfaces::key::packetsSent, 0x100100ffU);
  EXPECT_EQ(lm::interfaces::flagGone, 0x80U);
  EXPECT_EQ(lm::interfaces::roleExternal, 1U);
  EXPECT_EQ(lm::interfaces::roleInternal, 2U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAnAddress) {
  EXPECT_EQ(lm::addresses::key::interface, 0x08000005U);
  EXPECT_EQ(lm::addresses::key::address, 0x08000001U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAPort) {
  EXPECT_EQ(lm::nat::key::chain, 0x20000027U);
  EXPECT_EQ(lm::nat::key::matchAddress, 0x000001a3U);
  EXPECT_EQ(lm::nat::key::addressFirst, 0x08000034U);
  EXPECT_EQ(lm::nat::key::addressLast, 0x08000035U);
  EXPECT_EQ(lm::nat::key::matchPort, 0x00000196U);
  EXPECT_EQ(lm::nat::key::portFirst, 0x08000009U);
  EXPECT_EQ(lm::nat::key::portLast, 0x0800000aU);
  EXPECT_EQ(lm::nat::key::matchProtocol, 0x00000194U);
  EXPECT_EQ(lm::nat::key::protocol, 0x0800000bU);
  EXPECT_EQ(lm::nat::key::action, 0x08000028U);
  EXPECT_EQ(lm::nat::key::translateAddress, 0x000003eeU);
  EXPECT_EQ(lm::nat::key::clientFirst, 0x080003e8U);
  EXPECT_EQ(lm::nat::key::clientLast, 0x080003e9U);
  EXPECT_EQ(lm::nat::key::translatePort, 0x000003efU);
  EXPECT_EQ(lm::nat::key::clientPortFirst, 0x080003eaU);
  EXPECT_EQ(lm::nat::key::clientPortLast, 0x080003ebU);
  EXPECT_EQ(lm::nat::key::owner, 0x20010020U);
  EXPECT_EQ(lm::nat::key::seconds, 0x10010021U);
  EXPECT_EQ(lm::nat::key::connections, 0x10010022U);
  EXPECT_EQ(lm::nat::key::uses, 0x10010025U);
  EXPECT_EQ(lm::nat::key::stale, 0x00010023U);
  EXPECT_EQ(lm::nat::key::closed, 0x00010024U);
  EXPECT_EQ(lm::nat::actionDnat, 22U);
}

// Also proves [numbers].
TEST(WireNumbers, OfALeaseAWishARemoteNetworkAndARefusal) {
  EXPECT_EQ(lm::nat::key::lease, 0x08010050U);
  EXPECT_EQ(lm::nat::key::anyPort, 0x00010051U);
  EXPECT_EQ(lm::nat::key::remoteNetworks, 0x88010052U);
  EXPECT_EQ(lm::nat::key::remotePrefixes, 0x88010053U);
  EXPECT_EQ(lm::nat::key::remotesPossible, 0x00010038U);
  EXPECT_EQ(lm::nat::mostRemotes, 8U);
  EXPECT_EQ(lm::nat::key::refusal, 0x08010054U);
  EXPECT_EQ(lm::nat::key::holder, 0x08010055U);
  EXPECT_EQ(lm::nat::key::ended, 0x08010056U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::other), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::conflict), 2U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::policy), 3U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::full), 4U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::rights), 5U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Refusal::port), 6U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Holder::otherService), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Holder::sameService), 2U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Holder::administrator), 3U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Holder::router), 4U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::End::lease), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::End::administrator), 2U);
}

// Also proves [numbers].
TEST(WireNumbers, OfThePolicy) {
  EXPECT_EQ(lm::nat::key::externalPorts, 0x20010030U);
  EXPECT_EQ(lm::nat::key::internalClients, 0x20010031U);
  EXPECT_EQ(lm::nat::key::maxRules, 0x08010032U);
  EXPECT_EQ(lm::nat::key::maxRulesPerClient, 0x08010033U);
  EXPECT_EQ(lm::nat::key::reset, 0x00010034U);
  EXPECT_EQ(lm::nat::key::reload, 0x00010035U);
  EXPECT_EQ(lm::nat::key::routerPorts, 0x20010036U);
  EXPECT_EQ(lm::nat::key::internalPorts, 0x20010037U);
  EXPECT_EQ(lm::nat::key::event, 0x08010040U);
  EXPECT_EQ(lm::nat::key::time, 0x10010041U);
  EXPECT_EQ(lm::nat::key::user, 0x08010042U);
  EXPECT_EQ(lm::nat::key::reason, 0x20010043U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Event::opened), 1U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Event::changed), 2U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Event::closed), 3U);
  EXPECT_EQ(static_cast<uint32_t>(lm::nat::Event::refused), 4U);
  EXPECT_EQ(lm::nat::logPath(), (std::vector<uint32_t>{20, 6}));
}

// Also proves [numbers].
TEST(WireNumbers, OfAChange) {
  EXPECT_EQ(lm::history::key::text, 0x20000001U);
  EXPECT_EQ(lm::history::key::undo, 0x28000002U);
  EXPECT_EQ(lm::history::key::path, 0x88000003U);
  EXPECT_EQ(lm::history::key::time, 0x10000004U);
}

// Also proves [numbers].
TEST(WireNumbers, OfTheGatewayAndOtherServices) {
  EXPECT_EQ(lm::gateway::key::interface, 0x08000001U);
  EXPECT_EQ(lm::gateway::key::type, 0x08000002U);
  EXPECT_EQ(lm::gateway::settings::enabled, 1U);
  EXPECT_EQ(lm::gateway::settings::allowDisableExternal, 2U);
  EXPECT_EQ(lm::gateway::settings::showDummyRule, 3U);
  EXPECT_EQ(lm::resolver::cmd::resolve, 3U);
  EXPECT_EQ(lm::resolver::key::hostName, 0x20000003U);
  EXPECT_EQ(lm::resolver::key::address, 0x08000004U);
  EXPECT_EQ(lm::identity::key::text, 0x20000001U);
  EXPECT_EQ(lm::service::pcp, 41U);
  EXPECT_EQ(lm::pcp::key::enabled, 0x00000001U);
  EXPECT_EQ(lm::pcp::key::agents, 0x20000002U);
  EXPECT_EQ(lm::pcp::key::served, 0x20000010U);
  EXPECT_EQ(lm::pcp::key::problem, 0x20000011U);
  EXPECT_EQ(lm::pcp::key::mappings, 0x08000012U);
  EXPECT_EQ(lm::pcp::key::pinholes, 0x08000013U);
}

TEST(WireRecords, ThatSayNothingMoreAreOfWhatIsNeitherDisabledNorGone) {
  EXPECT_FALSE(lm::addresses::Record{}.disabled);
  EXPECT_FALSE(lm::addresses::Record{}.removed);
  EXPECT_FALSE(lm::interfaces::Record{}.disabled);
  EXPECT_FALSE(lm::interfaces::Record{}.running);
  EXPECT_FALSE(lm::nat::Rule{}.disabled);
  EXPECT_FALSE(lm::nat::Record{}.stale);
  EXPECT_FALSE(lm::nat::Record{}.closed);
}

}  // namespace
}  // namespace lumen
