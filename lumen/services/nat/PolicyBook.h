#pragma once

#include <string>

#include "lumen/services/nat/Policy.h"
#include "lumen/values/Result.h"
#include "platform/Store.h"
#include "platform/message.h"
#include "platform/wire/NatRules.h"

namespace lumen {

/// Where the policy is written down: the file of the installation, and over it what an
/// administrator set by command, which lies in the store.
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
  /// wrong: a policy that is half understood may open more than it was written to allow.
  [[nodiscard]] Result<void> load();

  /// The policy in force.
  [[nodiscard]] const Policy& policy() const { return state_.policy; }

  /// The policy in force as the fields of lm::nat::key.
  [[nodiscard]] lm::message settings() const;

  /// Changes the fields that `request` has, for good, as lm::nat::key says. After a failure nothing
  /// has changed.
  [[nodiscard]] Result<void> write(const lm::message& request);

  [[nodiscard]] const State& state() const { return state_; }
  /// Makes `state`, of before a write, hold again. What cannot be stored is logged by the store and
  /// holds until the end of the process.
  void restore(const State& state);

 private:
  /// What the file says. Fails with where and what is wrong in it.
  [[nodiscard]] Result<Policy> readFile() const;

  std::string filePath_;
  lm::Store store_;
  State state_;
};

}  // namespace lumen
