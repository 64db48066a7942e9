#pragma once

#include <string>

#include "lumen/services/LocalHandler.h"
#include "platform/message.h"
#include "platform/wire/Identity.h"

namespace lumen {

/// The identity of this router: 32 hexadecimal digits, made at random when the platform first runs,
/// and kept. Every caller may read it, as lm::identity::key::text of the answer to lm::cmd::get;
/// the stored record holds the same field.
class Identity : public LocalHandler {
 public:
  /// `storePath` is a store directory that belongs to this program's user. An identity that cannot
  /// be stored, which is logged, lasts as long as this process.
  explicit Identity(const std::string& storePath);

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;

 private:
  std::string identity_;
};

}  // namespace lumen
