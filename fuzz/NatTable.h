#pragma once

#include <cstdint>
#include <map>

#include "lumen/services/nat/Rule.h"
#include "platform/message.h"
#include "support/TestPlatform.h"

namespace fuzz {

/// The NAT rule table that a gateway daemon talks to, without a kernel. It judges requests as the
/// real one does, but has no policy. A request that no gateway daemon should send breaks a promise.
class NatTable {
 public:
  /// Answers at `platform`, which must outlive this.
  explicit NatTable(lm::test::TestPlatform& platform);
  NatTable(const NatTable&) = delete;
  NatTable& operator=(const NatTable&) = delete;

  /// By id.
  [[nodiscard]] const std::map<uint32_t, lumen::Rule>& rules() const { return rules_; }

 private:
  lm::message add(const lm::message& request);
  lm::message set(const lm::message& request);
  lm::message remove(const lm::message& request);

  std::map<uint32_t, lumen::Rule> rules_;
  uint32_t lastId_ = 0;
};

}  // namespace fuzz
