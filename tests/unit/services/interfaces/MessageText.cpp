#include "services/interfaces/MessageText.h"

#include <cstdio>
#include <map>

#include "lumen/runtime/Fields.h"
#include "lumen/values/Ipv4.h"
#include "platform/Keys.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Interfaces.h"

namespace lumen {
namespace {

std::string nameOf(uint32_t key) {
  static const std::map<uint32_t, std::string> names{
      {lm::key::objectId, "id"},
      {lm::key::records, "records"},
      {lm::key::cursor, "cursor"},
      {lm::key::disabled, "disabled"},
      {lm::key::removed, "removed"},
      {lm::key::errorCode, "error"},
      {lm::key::errorText, "text"},
      {lm::interfaces::key::hardwareType, "type"},
      {lm::interfaces::key::flags, "flags"},
      {lm::interfaces::key::index, "index"},
      {lm::interfaces::key::name, "name"},
      {lm::interfaces::key::displayName, "display"},
      {lm::interfaces::key::running, "running"},
      {lm::interfaces::key::role, "role"},
      {lm::interfaces::key::bytesReceived, "rxbytes"},
      {lm::interfaces::key::bytesSent, "txbytes"},
      {lm::interfaces::key::packetsReceived, "rxpackets"},
      {lm::interfaces::key::packetsSent, "txpackets"},
      {lm::addresses::key::interface, "interface"},
      {lm::addresses::key::address, "address"},
  };
  const auto it = names.find(key);
  if (it != names.end()) return it->second;
  char number[16];
  std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(key));
  return number;
}

/// Writes the value of one field.
class Writer {
 public:
  explicit Writer(uint32_t key) : key_(key) {}

  std::string operator()(bool value) const { return value ? "1" : "0"; }
  std::string operator()(uint64_t value) const { return std::to_string(value); }
  std::string operator()(const std::string& value) const { return value; }
  std::string operator()(const lm::message& value) const { return "{" + text(value) + "}"; }
  std::string operator()(uint32_t value) const {
    if (key_ != lm::addresses::key::address) return std::to_string(value);
    return Ipv4Address::fromNumber(value).text();
  }
  template <typename T>
  std::string operator()(const std::vector<T>& values) const {
    std::string result = "[";
    for (const T& value : values) {
      if (result.size() > 1) result += ", ";
      result += (*this)(value);
    }
    return result + "]";
  }

 private:
  uint32_t key_;
};

}  // namespace

std::string text(const lm::message& m) {
  std::string result;
  for (const lm::Field& field : m.fields()) {
    if (!result.empty()) result += ' ';
    result += nameOf(field.key) + "=" + std::visit(Writer(field.key), field.value);
  }
  return result;
}

std::vector<std::string> recordTexts(const lm::message& answer) {
  std::vector<std::string> result;
  for (const lm::message& m : answer.get_message_array_ref(lm::key::records)) {
    result.push_back(text(m));
  }
  return result;
}

}  // namespace lumen
