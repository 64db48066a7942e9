// The numbers of the platform's messages: a program that was built earlier, or in another language,
// speaks them too.

#include <gtest/gtest.h>

#include "lumen/ctl/router/Keys.h"
#include "lumen/runtime/Broker.h"
#include "lumen/services/addresses/AddressKeys.h"
#include "lumen/services/broker/BrokerKeys.h"
#include "lumen/services/history/HistoryKeys.h"
#include "lumen/services/interfaces/InterfaceKeys.h"
#include "lumen/services/nat/NatKeys.h"

namespace lumen {
namespace {

// Promise [numbers]: The numbers of all commands and fields are fixed, so that a program that was
// built earlier is understood.
TEST(WireNumbers, OfTheBroker) {
  EXPECT_EQ(brokercmd::registerServices, 0x10U);
  EXPECT_EQ(brokercmd::subscribe, 0x11U);
  EXPECT_EQ(brokercmd::unsubscribe, 0x12U);
  EXPECT_EQ(brokercmd::unregisterServices, 0x13U);
  EXPECT_EQ(brokercmd::services, 0x14U);
  EXPECT_EQ(brokercmd::monitor, 0x15U);
  EXPECT_EQ(brokercmd::cancel, 0x16U);
  EXPECT_EQ(brokerkey::services, 0x88000001U);
  EXPECT_EQ(brokerkey::command, 0x08000001U);
  EXPECT_EQ(brokerkey::path, 0x88000002U);
  EXPECT_EQ(monitorkey::on, 0x00000001U);
  EXPECT_EQ(monitorkey::message, 0x28000001U);
  EXPECT_EQ(monitorkey::from, 0x08000002U);
  EXPECT_EQ(monitorkey::to, 0x08000003U);
  EXPECT_EQ(monitorkey::cut, 0x00000004U);
  EXPECT_EQ(monitor::anonymous, 0x10000U);
  EXPECT_EQ(monitor::everybody, 0xFFFFFFFFU);
  EXPECT_EQ(servicekey::number, 0x08fe0001U);
  EXPECT_EQ(servicekey::name, 0x20010005U);
  EXPECT_EQ(servicekey::state, 0x20000001U);
  EXPECT_EQ(servicekey::pid, 0x08000002U);
  EXPECT_EQ(servicekey::restarts, 0x08000003U);
  EXPECT_EQ(servicekey::nextStart, 0x10000004U);
}

// Also proves [numbers].
TEST(WireNumbers, OfTheBrokerAsProgramsSendThem) {
  EXPECT_EQ(lm::broker::registerServices, brokercmd::registerServices);
  EXPECT_EQ(lm::broker::subscribe, brokercmd::subscribe);
  EXPECT_EQ(lm::broker::unsubscribe, brokercmd::unsubscribe);
  EXPECT_EQ(lm::broker::unregisterServices, brokercmd::unregisterServices);
  EXPECT_EQ(lm::broker::cancel, brokercmd::cancel);
  EXPECT_EQ(lm::broker::services, brokerkey::services);
  EXPECT_EQ(lm::broker::topicCommand, brokerkey::command);
  EXPECT_EQ(lm::broker::topicSource, brokerkey::path);
}

// Also proves [numbers].
TEST(WireNumbers, OfAnInterface) {
  EXPECT_EQ(interfaces::key::hardwareType, 0x08010001U);
  EXPECT_EQ(interfaces::key::flags, 0x08010003U);
  EXPECT_EQ(interfaces::key::index, 0x08010004U);
  EXPECT_EQ(interfaces::key::name, 0x20010005U);
  EXPECT_EQ(interfaces::key::displayName, 0x20010006U);
  EXPECT_EQ(interfaces::key::running, 0x0001000eU);
  EXPECT_EQ(interfaces::key::role, 0x08010010U);
  EXPECT_EQ(interfaces::key::bytesReceived, 0x100100fcU);
  EXPECT_EQ(interfaces::key::bytesSent, 0x100100fdU);
  EXPECT_EQ(interfaces::key::packetsReceived, 0x100100feU);
  EXPECT_EQ(interfaces::key::packetsSent, 0x100100ffU);
  EXPECT_EQ(interfaces::flagGone, 0x80U);
  EXPECT_EQ(interfaces::roleExternal, 1U);
  EXPECT_EQ(interfaces::roleInternal, 2U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAnAddress) {
  EXPECT_EQ(addresses::key::interface, 0x08000005U);
  EXPECT_EQ(addresses::key::address, 0x08000001U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAPort) {
  EXPECT_EQ(nat::key::chain, 0x20000027U);
  EXPECT_EQ(nat::key::matchAddress, 0x000001a3U);
  EXPECT_EQ(nat::key::addressFirst, 0x08000034U);
  EXPECT_EQ(nat::key::addressLast, 0x08000035U);
  EXPECT_EQ(nat::key::matchPort, 0x00000196U);
  EXPECT_EQ(nat::key::portFirst, 0x08000009U);
  EXPECT_EQ(nat::key::portLast, 0x0800000aU);
  EXPECT_EQ(nat::key::matchProtocol, 0x00000194U);
  EXPECT_EQ(nat::key::protocol, 0x0800000bU);
  EXPECT_EQ(nat::key::action, 0x08000028U);
  EXPECT_EQ(nat::key::translateAddress, 0x000003eeU);
  EXPECT_EQ(nat::key::clientFirst, 0x080003e8U);
  EXPECT_EQ(nat::key::clientLast, 0x080003e9U);
  EXPECT_EQ(nat::key::translatePort, 0x000003efU);
  EXPECT_EQ(nat::key::clientPortFirst, 0x080003eaU);
  EXPECT_EQ(nat::key::clientPortLast, 0x080003ebU);
  EXPECT_EQ(nat::key::owner, 0x20010020U);
  EXPECT_EQ(nat::key::seconds, 0x10010021U);
  EXPECT_EQ(nat::key::connections, 0x10010022U);
  EXPECT_EQ(nat::key::uses, 0x10010025U);
  EXPECT_EQ(nat::key::stale, 0x00010023U);
  EXPECT_EQ(nat::key::closed, 0x00010024U);
  EXPECT_EQ(nat::actionDnat, 22U);
}

// Also proves [numbers].
TEST(WireNumbers, OfThePolicy) {
  EXPECT_EQ(nat::key::externalPorts, 0x20010030U);
  EXPECT_EQ(nat::key::internalClients, 0x20010031U);
  EXPECT_EQ(nat::key::maxRules, 0x08010032U);
  EXPECT_EQ(nat::key::maxRulesPerClient, 0x08010033U);
  EXPECT_EQ(nat::key::reset, 0x00010034U);
  EXPECT_EQ(nat::key::reload, 0x00010035U);
}

// Also proves [numbers].
TEST(WireNumbers, OfAChange) {
  EXPECT_EQ(history::key::text, 0x20000001U);
  EXPECT_EQ(history::key::undo, 0x28000002U);
  EXPECT_EQ(history::key::path, 0x88000003U);
  EXPECT_EQ(history::key::time, 0x10000004U);
}

// Also proves [numbers].
TEST(WireNumbers, OfTheGatewayAndOtherServices) {
  EXPECT_EQ(lumenctl::gatewaykey::interface, 0x08000001U);
  EXPECT_EQ(lumenctl::gatewaykey::type, 0x08000002U);
  EXPECT_EQ(lumenctl::settingskey::enabled, 1U);
  EXPECT_EQ(lumenctl::settingskey::allowDisableExternal, 2U);
  EXPECT_EQ(lumenctl::settingskey::showDummyRule, 3U);
  EXPECT_EQ(lumenctl::resolvercmd::resolve, 3U);
  EXPECT_EQ(lumenctl::resolverkey::name, 0x20000003U);
  EXPECT_EQ(lumenctl::resolverkey::address, 0x08000004U);
  EXPECT_EQ(lumenctl::identitykey::text, 0x20000001U);
}

}  // namespace
}  // namespace lumen
