#pragma once

#include <functional>
#include <string>
#include <vector>

#include "upnp/UPNPStatus.h"

/// Carries out an action: takes the checked in values in the order of `Action::inArgs` and appends
/// the out values in the order of `Action::outArgs`, which are sent only with UPNP_SUCCESS.
using ActionCallback =
    std::function<UPNPStatus(const std::vector<std::string>& in, std::vector<std::string>& out)>;

/// An action of a service: its arguments, each with its related state variable, and its handler.
struct Action {
  std::vector<std::string> inVars;   ///< related variable of each in argument
  std::vector<std::string> inArgs;   ///< in argument names, parallel to inVars
  std::vector<std::string> outVars;  ///< related variable of each out argument
  std::vector<std::string> outArgs;  ///< out argument names, parallel to outVars
  ActionCallback callback;           ///< none: the action returns the values of outVars
};
