#include "platform/message.h"

#include <arpa/inet.h>

#include <utility>

#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"

namespace lm {
namespace {

uint32_t typed(uint32_t key, uint32_t type) { return (key & ~type::mask) | type; }

uint32_t arrayOf(uint32_t key, uint32_t type) { return typed(key, type | type::arrayFlag); }

template <typename T>
const T* find(const message& m, uint32_t key) {
  const Value* value = m.fields().find(key);
  return value ? std::get_if<T>(value) : nullptr;
}

template <typename T>
T get(const message& m, uint32_t key, const T& absent) {
  const T* value = find<T>(m, key);
  return value ? *value : absent;
}

template <typename T>
T& getOrCreate(message& m, uint32_t key) {
  if (Value* value = m.fields().find(key)) {
    if (T* present = std::get_if<T>(value)) return *present;
  }
  return std::get<T>(m.fields().set(key, T{}));
}

template <typename T>
const std::vector<T>& elements(const message& m, uint32_t key) {
  static const std::vector<T> empty;
  const auto* values = find<std::vector<T>>(m, key);
  return values ? *values : empty;
}

}  // namespace

message::message() noexcept = default;
message::message(const message& other)
    : fields_(other.fields_ ? std::make_unique<Fields>(*other.fields_) : nullptr) {}
message::message(message&& other) noexcept = default;
message& message::operator=(const message& other) {
  if (this != &other) *this = message(other);
  return *this;
}
message& message::operator=(message&& other) noexcept = default;
message::~message() = default;

void message::insert_bool(uint32_t key, bool value) {
  fields().set(typed(key, type::boolean), value);
}

void message::insert_u32(uint32_t key, uint32_t value) {
  fields().set(typed(key, type::u32), value);
}

void message::insert(uint32_t key, uint32_t value) { insert_u32(key, value); }

void message::insert_u64(uint32_t key, uint64_t value) {
  fields().set(typed(key, type::u64), value);
}

void message::insert_be32(uint32_t key, uint32_t address) { insert_u32(key, ntohl(address)); }

void message::insert_string(uint32_t key, std::string value) {
  fields().set(typed(key, type::string), std::move(value));
}

void message::insert_message(uint32_t key, message value) {
  fields().set(typed(key, type::message), std::move(value));
}

void message::insert_u32_array(uint32_t key, std::vector<uint32_t> values) {
  fields().set(arrayOf(key, type::u32), std::move(values));
}

void message::insert_message_array(uint32_t key, std::vector<message> values) {
  fields().set(arrayOf(key, type::message), std::move(values));
}

bool message::get_bool(uint32_t key, bool absent) const {
  return get(*this, typed(key, type::boolean), absent);
}

uint32_t message::get_u32(uint32_t key, uint32_t absent) const {
  return get(*this, typed(key, type::u32), absent);
}

uint64_t message::get_u64(uint32_t key, uint64_t absent) const {
  return get(*this, typed(key, type::u64), absent);
}

uint32_t message::get_be32(uint32_t key, uint32_t absent) const {
  return htonl(get_u32(key, ntohl(absent)));
}

std::string message::get_string(uint32_t key, const std::string& absent) const {
  return get(*this, typed(key, type::string), absent);
}

message message::get_message(uint32_t key) const {
  return get(*this, typed(key, type::message), message{});
}

bool& message::get_bool_ref(uint32_t key) {
  return getOrCreate<bool>(*this, typed(key, type::boolean));
}

uint32_t& message::get_u32_ref(uint32_t key) {
  return getOrCreate<uint32_t>(*this, typed(key, type::u32));
}

const std::vector<uint32_t>& message::get_u32_array_ref(uint32_t key) const {
  return elements<uint32_t>(*this, arrayOf(key, type::u32));
}

const std::vector<message>& message::get_message_array_ref(uint32_t key) const {
  return elements<message>(*this, arrayOf(key, type::message));
}

size_t message::size_message_array(uint32_t key) const { return get_message_array_ref(key).size(); }

bool message::has_array(uint32_t key) const {
  return fields().find(key | type::arrayFlag) != nullptr;
}

const message::Fields& message::fields() const {
  static const Fields empty;
  return fields_ ? *fields_ : empty;
}

message::Fields& message::fields() {
  if (!fields_) fields_ = std::make_unique<Fields>();
  return *fields_;
}

message errorMsg(uint32_t code, const std::string& text) {
  message reply;
  reply.insert_u32(key::errorCode, code);
  reply.insert_string(key::errorText, text);
  return reply;
}

bool isError(const message& reply) { return reply.fields().find(key::errorCode) != nullptr; }

std::string getError(const message& reply) {
  return isError(reply) ? reply.get_string(key::errorText) : std::string();
}

}  // namespace lm
