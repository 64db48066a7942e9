#pragma once

#include <string>

#include "lumen/services/nat/Policy.h"
#include "lumen/values/Result.h"
#include "platform/Store.h"
#include "platform/message.h"
#include "platform/wire/NatRules.h"

namespace lumen {

/// The NAT policy: the defaults, changed by the installed file, changed by what an administrator
/// has set by command, which is kept in the store.
class PolicyBook {
 public:
  /// `storeDirectory` must exist.
  PolicyBook(std::string filePath, std::string storeDirectory);
  PolicyBook(const PolicyBook&) = delete;
  PolicyBook& operator=(const PolicyBook&) = delete;

  /// All that `write` changes.
  struct State {
    Policy fromFile;
    lm::message written;  ///< the stored fields
    Policy policy;        ///< in force
  };

  /// Reads both. A file that does not exist leaves the defaults. Fails when anything is
  /// wrong: a policy that is half understood may open more than its author intended.
  [[nodiscard]] Result<void> load();

  /// The policy in force.
  [[nodiscard]] const Policy& policy() const { return state_.policy; }

  /// The policy in force as the fields of lm::nat::key.
  [[nodiscard]] lm::message settings() const;

  /// Sets the fields of `request` permanently; lm::nat::key describes them. After a failure nothing
  /// has changed.
  [[nodiscard]] Result<void> write(const lm::message& request);

  [[nodiscard]] const State& state() const { return state_; }
  /// Restores `state`, which was read before a write. If it cannot be stored, the store logs why
  /// and it holds until this process ends.
  void restore(const State& state);

 private:
  /// What the file says. Fails with where and what is wrong in it.
  [[nodiscard]] Result<Policy> readFile() const;

  std::string filePath_;
  lm::Store store_;
  State state_;
};

}  // namespace lumen
