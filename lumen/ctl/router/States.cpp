#include "lumen/ctl/router/States.h"

#include "platform/wire/Broker.h"

namespace lumenctl {

StateWord wordFor(LinkState state) {
  switch (state) {
    case LinkState::running:
      return {"running", Colour::good};
    case LinkState::noLink:
      return {"no link", Colour::bad};
    case LinkState::down:
      return {"down", Colour::warning};
    case LinkState::away:
      break;
  }
  return {"away", Colour::bad};
}

StateWord wordFor(PortState state) {
  switch (state) {
    case PortState::open:
      return {"open", Colour::good};
    case PortState::disabled:
      return {"disabled", Colour::warning};
    case PortState::closed:
      return {"closed", Colour::warning};
    case PortState::stale:
      break;
  }
  return {"stale", Colour::warning};
}

StateWord wordFor(ServiceState state) {
  switch (state) {
    case ServiceState::stopped:
      return {lm::broker::state::stopped, Colour::none};
    case ServiceState::starting:
      return {lm::broker::state::starting, Colour::warning};
    case ServiceState::running:
      return {lm::broker::state::running, Colour::good};
    case ServiceState::leaving:
      return {lm::broker::state::leaving, Colour::warning};
    case ServiceState::waiting:
      return {lm::broker::state::waiting, Colour::bad};
    case ServiceState::unknown:
      break;
  }
  return {"unknown", Colour::none};
}

StateWord wordFor(GatewayState state) {
  switch (state) {
    case GatewayState::on:
      return {"on", Colour::good};
    case GatewayState::off:
      return {"off", Colour::warning};
    case GatewayState::starting:
      return {"starting", Colour::warning};
    case GatewayState::crashed:
      return {"crashed", Colour::bad};
    case GatewayState::notInstalled:
      return {"not installed", Colour::bad};
    case GatewayState::notAnswering:
      return {"not answering", Colour::bad};
    case GatewayState::notReachable:
      break;
  }
  return {"not reachable", Colour::bad};
}

ServiceState serviceState(std::string_view word) {
  for (const ServiceState state :
       {ServiceState::stopped, ServiceState::starting, ServiceState::running, ServiceState::leaving,
        ServiceState::waiting}) {
    if (word == wordFor(state).text) return state;
  }
  return ServiceState::unknown;
}

}  // namespace lumenctl
