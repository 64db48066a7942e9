#pragma once

#include <array>

#include "lumen/ctl/router/Records.h"

namespace lumenctl {

/// A setting of the gateway as the administrator knows it.
struct Setting {
  const char* name;
  bool Settings::*value;
  const char* meaning;
};

inline constexpr std::array<Setting, 3> settingTable = {{
    {"enabled", &Settings::enabled, "the gateway works"},
    {"allow-disable-external", &Settings::allowDisableExternal,
     "programs on the LAN may take the external interface down and up"},
    {"show-dummy-rule", &Settings::showDummyRule,
     "an inactive entry is listed, for programs that refuse an empty list of ports"},
}};

}  // namespace lumenctl
