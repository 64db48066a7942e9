#include "lumen/runtime/PendingReply.h"

#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Runtime.h"
#include "platform/Keys.h"

namespace lm {

PendingReply PendingReply::take() {
  Runtime* const runtime = currentRuntime();
  if (!runtime) fatal("platform: no looper");
  return PendingReply(runtime->handlers().takeAnswer());
}

PendingReply::PendingReply(PendingReply&& other) noexcept
    : serial_(std::exchange(other.serial_, std::nullopt)) {}

PendingReply& PendingReply::operator=(PendingReply&& other) noexcept {
  if (this == &other) return *this;
  fail();
  serial_ = std::exchange(other.serial_, std::nullopt);
  return *this;
}

PendingReply::~PendingReply() { fail(); }

void PendingReply::send(message reply) {
  const std::optional<uint32_t> serial = std::exchange(serial_, std::nullopt);
  Runtime* const runtime = currentRuntime();
  if (serial && runtime) runtime->connection().reply(*serial, std::move(reply));
}

/// The broker sends the same error for a program that has ended.
void PendingReply::fail() { send(refusal("service unavailable")); }

}  // namespace lm
