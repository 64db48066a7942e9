#include "lumen/services/supervisor/ServiceFile.h"

#include <grp.h>
#include <ini.h>
#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>
#include <map>

namespace lumen {

namespace {

using Settings = std::map<std::string, std::string, std::less<>>;

// The parser cuts longer lines in two.
constexpr size_t maxLine = 190;
constexpr size_t maxName = 32;
constexpr uint32_t maxNumber = 0xFFFF;
constexpr uint32_t maxPorts = 65536;  // of the NAT policy's max-rules

bool isName(std::string_view text) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  };
  return !text.empty() && text.size() <= maxName && text.front() != '-' &&
         std::all_of(text.begin(), text.end(), allowed);
}

template <typename Number>
std::optional<Number> toNumber(std::string_view text) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  if (failure != std::errc() || stop != end) return std::nullopt;
  return number;
}

/// What the parser collects.
struct Reading {
  Settings settings;
  Result<void> outcome;
};

int takeSetting(void* context, const char* section, const char* name, const char* value) {
  static constexpr std::string_view known[] = {
      "name",         "number", "executable",   "user",         "group",
      "boot",         "stores", "answers-only", "reads",        "network",
      "capabilities", "ports",  "most-ports",   "longest-lease"};
  auto& reading = *static_cast<Reading*>(context);
  if (!reading.outcome) return 1;
  const std::string_view setting = name;
  if (std::string_view(section) != "service") {
    reading.outcome = Failure{"settings belong below [service]"};
  } else if (std::find(std::begin(known), std::end(known), setting) == std::end(known)) {
    reading.outcome = Failure{"unknown setting \"" + std::string(setting) + "\""};
  } else if (!reading.settings.emplace(setting, value).second) {
    reading.outcome = Failure{"\"" + std::string(setting) + "\" is given twice"};
  }
  return 1;
}

Failure inLine(size_t line, const std::string& what) {
  return {"line " + std::to_string(line) + ": " + what};
}

Result<void> checkText(std::string_view text) {
  if (text.size() > maxServiceFile) return Failure{"is too long"};
  size_t line = 1;
  size_t length = 0;
  for (const char c : text) {
    if (c == '\n') {
      ++line;
      length = 0;
      continue;
    }
    const bool printable = (c >= ' ' && c <= '~') || c == '\t' || c == '\r';
    if (!printable) return inLine(line, "a byte that is no printable ASCII");
    if (++length > maxLine) return inLine(line, "is too long");
  }
  return {};
}

/// Turns the settings into a definition, up to the first thing that is wrong.
class Builder {
 public:
  Builder(const Settings& settings, const UserDatabase& users)
      : settings_(settings), users_(users) {}

  Result<ServiceDefinition> build() {
    definition_.name = required("name");
    check(isName(definition_.name), "name");
    const auto number = toNumber<uint32_t>(required("number"));
    check(number && *number >= 1 && *number <= maxNumber, "number");
    definition_.number = number.value_or(0);
    definition_.executable = required("executable");
    check(definition_.executable.starts_with('/'), "executable");
    takeUser(required("user"));
    takeGroup();
    definition_.boot = yesOrNo("boot");
    definition_.answersOnly = yesOrNo("answers-only");
    definition_.reads = yesOrNo("reads");
    takeStores();
    takeNetwork();
    takeCapabilities();
    takePorts();
    if (!outcome_) return outcome_.failure();
    return definition_;
  }

 private:
  std::string optional(std::string_view setting) const {
    const auto found = settings_.find(setting);
    return found == settings_.end() ? std::string() : found->second;
  }

  std::string required(std::string_view setting) {
    if (!settings_.contains(setting)) fail("\"" + std::string(setting) + "\" is missing");
    return optional(setting);
  }

  void fail(const std::string& why) {
    if (outcome_) outcome_ = Failure{why};
  }

  void check(bool right, std::string_view setting) {
    if (right) return;
    fail("\"" + optional(setting) + "\" is no " + std::string(setting));
  }

  void takeUser(const std::string& user) {
    if (const auto number = toNumber<uint32_t>(user)) {
      definition_.user = *number;
      definition_.group = *number;
    } else if (const auto known = users_.user(user)) {
      definition_.user = known->id;
      definition_.group = known->group;
    } else {
      fail("there is no user \"" + user + "\"");
    }
  }

  // The highest number means "no change" to the kernel.
  void takeGroup() {
    const std::string group = optional("group");
    if (!group.empty()) {
      const auto number = toNumber<uint32_t>(group);
      const auto known = number ? std::optional<gid_t>(*number) : users_.group(group);
      if (!known) fail("there is no group \"" + group + "\"");
      definition_.group = known.value_or(0);
    }
    constexpr auto noChange = std::numeric_limits<uint32_t>::max();
    if (definition_.user == 0 || definition_.user == noChange) fail("may not run as root");
    if (definition_.group == 0 || definition_.group == noChange) {
      fail("may not run in root's group");
    }
  }

  bool yesOrNo(std::string_view setting) {
    const std::string value = optional(setting);
    if (!value.empty() && value != "yes" && value != "no") {
      fail("\"" + std::string(setting) + "\" is neither yes nor no");
    }
    return value == "yes";
  }

  void takeStores() {
    const std::string stores = optional("stores");
    size_t begin = stores.find_first_not_of(' ');
    while (begin != std::string::npos) {
      const size_t end = std::min(stores.find(' ', begin), stores.size());
      std::string store = stores.substr(begin, end - begin);
      if (!isName(store)) fail("\"" + store + "\" is no name of a store");
      definition_.stores.push_back(std::move(store));
      begin = stores.find_first_not_of(' ', end);
    }
  }

  void takeNetwork() {
    const std::string network = optional("network");
    if (network == "internal") {
      definition_.network = NetworkGrant::internal;
    } else if (network == "answers") {
      definition_.network = NetworkGrant::answers;
    } else if (network == "name-servers") {
      definition_.network = NetworkGrant::nameServers;
    } else if (network == "none") {
      definition_.network = NetworkGrant::none;
    } else if (settings_.contains("network")) {
      fail("\"network\" is none of internal, answers, name-servers and none");
    }
  }

  void takeCapabilities() {
    const std::string capabilities = optional("capabilities");
    definition_.netBindService = capabilities == "net-bind-service";
    if (capabilities.empty() || definition_.netBindService) return;
    fail("\"capabilities\" can be net-bind-service and nothing else");
  }

  std::optional<uint32_t> limitOfPorts(std::string_view setting, uint32_t highest) {
    if (!settings_.contains(setting)) return std::nullopt;
    const auto limit = toNumber<uint32_t>(optional(setting));
    if (!limit || *limit == 0 || *limit > highest) {
      fail("\"" + std::string(setting) + "\" is no number from 1 to " + std::to_string(highest));
    }
    if (!definition_.ports) fail("\"" + std::string(setting) + "\" needs \"ports = yes\"");
    return limit;
  }

  void takePorts() {
    if (yesOrNo("ports")) {
      definition_.ports.emplace();
      if (definition_.answersOnly || definition_.reads) {
        fail("a service that opens ports may be neither \"answers-only\" nor one that \"reads\"");
      }
    }
    const auto most = limitOfPorts("most-ports", maxPorts);
    const auto longest = limitOfPorts("longest-lease", std::numeric_limits<uint32_t>::max());
    if (!definition_.ports) return;
    definition_.ports->most = most;
    if (longest) definition_.ports->longestLease = std::chrono::seconds(*longest);
  }

  const Settings& settings_;
  const UserDatabase& users_;
  ServiceDefinition definition_;
  Result<void> outcome_;
};

}  // namespace

std::optional<UserDatabase::User> SystemUsers::user(const std::string& name) const {
  const passwd* const found = getpwnam(name.c_str());
  if (found == nullptr) return std::nullopt;
  return User{found->pw_uid, found->pw_gid};
}

std::optional<gid_t> SystemUsers::group(const std::string& name) const {
  const struct group* const found = getgrnam(name.c_str());
  if (found == nullptr) return std::nullopt;
  return found->gr_gid;
}

Result<ServiceDefinition> parseServiceFile(std::string_view text, const UserDatabase& users) {
  if (const Result<void> plain = checkText(text); !plain) return plain.failure();
  Reading reading;
  const int wrongLine = ini_parse_string(std::string(text).c_str(), takeSetting, &reading);
  if (wrongLine > 0) return inLine(static_cast<size_t>(wrongLine), "is no setting");
  if (!reading.outcome) return reading.outcome.failure();
  return Builder(reading.settings, users).build();
}

}  // namespace lumen
