#pragma once

#include <set>
#include <string>
#include <utility>

#include "lumen/services/interfaces/KeptNames.h"

namespace lumen {

/// Keeps what it is told.
class RecordingNames : public KeptNames::Listener {
 public:
  void internalNames(std::set<std::string> names) override { internal = std::move(names); }
  std::set<std::string> internal;
};

}  // namespace lumen
