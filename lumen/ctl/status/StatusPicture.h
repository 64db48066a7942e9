#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lumen/ctl/screen/Screen.h"
#include "lumen/ctl/status/Status.h"
#include "lumen/ctl/status/Traffic.h"

namespace lumenctl {

/// What a screen can show.
struct Look {
  Screen::Size size;
  bool colours = false;
  bool utf8 = false;
};

/// The router, with the traffic of its interfaces by their ids, as lines that fit `look`. When
/// lines are left out, the last one says how many.
[[nodiscard]] std::vector<std::string> picture(const Status& status,
                                               const std::map<uint32_t, Traffic>& traffic,
                                               const Look& look);

}  // namespace lumenctl
