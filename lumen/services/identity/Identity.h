#pragma once

#include <string>

#include "lumen/services/LocalHandler.h"
#include "platform/message.h"
#include "platform/wire/Identity.h"

namespace lumen {

/// Who this router is: a text of 32 hexadecimal digits, made at random when the platform runs for
/// the first time, and kept from then on. Every caller that may ask may read it, as
/// lm::identity::key::text of the answer to lm::cmd::get; the stored record holds the same field.
class Identity : public LocalHandler {
 public:
  /// `storePath` is a store directory that belongs to this program's user. When the identity cannot
  /// be stored, which is then in the log, it lasts as long as this process.
  explicit Identity(const std::string& storePath);

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;

 private:
  std::string identity_;
};

}  // namespace lumen
