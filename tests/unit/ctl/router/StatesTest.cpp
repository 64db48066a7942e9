#include <gtest/gtest.h>

#include <string>

#include "lumen/ctl/router/States.h"
#include "platform/wire/Broker.h"

namespace lumenctl {
namespace {

template <typename State>
void expectWord(State state, const std::string& text, Colour colour) {
  EXPECT_EQ(wordFor(state).text, text);
  EXPECT_EQ(wordFor(state).colour, colour) << text;
}

TEST(States, AreGreenWhenTheyAreGoodYellowWhenWantedAndRedWhenBad) {
  expectWord(LinkState::running, "running", Colour::good);
  expectWord(LinkState::noLink, "no link", Colour::bad);
  expectWord(LinkState::down, "down", Colour::warning);
  expectWord(LinkState::away, "away", Colour::bad);
  expectWord(PortState::open, "open", Colour::good);
  expectWord(PortState::disabled, "disabled", Colour::warning);
  expectWord(PortState::closed, "closed", Colour::warning);
  expectWord(PortState::stale, "stale", Colour::warning);
  expectWord(ServiceState::stopped, "stopped", Colour::none);
  expectWord(ServiceState::starting, "starting", Colour::warning);
  expectWord(ServiceState::running, "running", Colour::good);
  expectWord(ServiceState::leaving, "leaving", Colour::warning);
  expectWord(ServiceState::waiting, "waiting", Colour::bad);
  expectWord(ServiceState::unknown, "unknown", Colour::none);
  expectWord(GatewayState::on, "on", Colour::good);
  expectWord(GatewayState::off, "off", Colour::warning);
  expectWord(GatewayState::starting, "starting", Colour::warning);
  expectWord(GatewayState::crashed, "crashed", Colour::bad);
  expectWord(GatewayState::notInstalled, "not installed", Colour::bad);
  expectWord(GatewayState::notAnswering, "not answering", Colour::bad);
  expectWord(GatewayState::notReachable, "not reachable", Colour::bad);
}

TEST(States, OfAServiceAreReadFromTheWordsOfThePlatform) {
  EXPECT_EQ(serviceState(lm::broker::state::stopped), ServiceState::stopped);
  EXPECT_EQ(serviceState(lm::broker::state::starting), ServiceState::starting);
  EXPECT_EQ(serviceState(lm::broker::state::running), ServiceState::running);
  EXPECT_EQ(serviceState(lm::broker::state::leaving), ServiceState::leaving);
  EXPECT_EQ(serviceState(lm::broker::state::waiting), ServiceState::waiting);
  EXPECT_EQ(serviceState("unknown"), ServiceState::unknown);
  EXPECT_EQ(serviceState(""), ServiceState::unknown);
}

}  // namespace
}  // namespace lumenctl
