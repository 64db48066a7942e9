#include "lumen/services/identity/Identity.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <optional>

#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"
#include "platform/Store.h"
#include "platform/wire/Identity.h"

namespace lumen {

namespace {

constexpr size_t digits = 32;
constexpr std::string_view hexadecimal = "0123456789abcdef";

bool isIdentity(const std::string& text) {
  return text.size() == digits && text.find_first_not_of(hexadecimal) == std::string::npos;
}

std::string makeIdentity() {
  std::array<unsigned char, digits / 2> bytes = {};
  // The kernel returns so few bytes at once, after it has gathered enough entropy.
  while (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
  }
  std::string text;
  for (const unsigned char byte : bytes) {
    text += hexadecimal[byte / 16];
    text += hexadecimal[byte % 16];
  }
  return text;
}

}  // namespace

Identity::Identity(const std::string& storePath) {
  lm::Store store(storePath, 1);
  if (const std::optional<lm::message> stored = store.get(0)) {
    identity_ = stored->get_string(lm::identity::key::text);
  }
  if (isIdentity(identity_)) return;
  identity_ = makeIdentity();
  lm::message record;
  record.insert_string(lm::identity::key::text, identity_);
  store.set(0, record);
}

lm::message Identity::handle(const Caller& /*caller*/, uint32_t command,
                             const lm::message& /*request*/) {
  if (command != lm::cmd::get) return lm::refusal("unknown command");
  lm::message reply;
  reply.insert_string(lm::identity::key::text, identity_);
  return reply;
}

}  // namespace lumen
