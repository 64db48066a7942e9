// Service files: a definition that is taken obeys its limits, and is the same when it is written
// down plainly.

#include <algorithm>
#include <string>

#include "fuzz/Fuzz.h"
#include "lumen/services/supervisor/ServiceFile.h"

namespace {

using fuzz::require;

class OneUser : public lumen::UserDatabase {
 public:
  [[nodiscard]] std::optional<User> user(const std::string& name) const override {
    if (name == "palinode") return User{200, 300};
    if (name == "root") return User{0, 0};
    return std::nullopt;
  }
  [[nodiscard]] std::optional<gid_t> group(const std::string& name) const override {
    if (name == "net") return 400;
    if (name == "root") return 0;
    return std::nullopt;
  }
};

/// What may become part of a path.
bool isName(const std::string& text) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  };
  return !text.empty() && text.size() <= 32 && std::ranges::all_of(text, allowed);
}

bool isOrdinaryId(uint32_t id) { return id != 0 && id != 0xFFFFFFFF; }

std::string written(const lumen::ServiceDefinition& service) {
  std::string text =
      "[service]\nname=" + service.name + "\nnumber=" + std::to_string(service.number) +
      "\nexecutable=" + service.executable + "\nuser=" + std::to_string(service.user) +
      "\ngroup=" + std::to_string(service.group) + "\n";
  if (service.boot) text += "boot=yes\n";
  if (service.answersOnly) text += "answers-only=yes\n";
  if (service.reads) text += "reads=yes\n";
  if (service.netBindService) text += "capabilities=net-bind-service\n";
  if (service.network) {
    text += "network=";
    switch (*service.network) {
      case lumen::NetworkGrant::none:
        text += "none\n";
        break;
      case lumen::NetworkGrant::internal:
        text += "internal\n";
        break;
      case lumen::NetworkGrant::nameServers:
        text += "name-servers\n";
        break;
      case lumen::NetworkGrant::answers:
        text += "answers\n";
        break;
    }
  }
  if (service.stores.empty()) return text;
  text += "stores=";
  for (const std::string& store : service.stores) text += store + " ";
  text.back() = '\n';
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto service = lumen::parseServiceFile(fuzz::text(data, size), OneUser());
  if (!service) {
    require(!service.why().empty(), "a refusal has a reason");
    return 0;
  }
  require(isName(service->name), "a service has a name");
  require(service->number >= 1 && service->number <= 0xFFFF, "a number is from 1 to 65535");
  require(service->executable.starts_with('/'), "a path is absolute");
  require(isOrdinaryId(service->user), "no service runs as root");
  require(isOrdinaryId(service->group), "no service runs in root's group");
  require(std::ranges::all_of(service->stores, isName), "a store has a name");

  const std::string text = written(*service);
  const auto again = lumen::parseServiceFile(text, OneUser());
  require(again && written(*again) == text, "what is written down means the same");
  return 0;
}
