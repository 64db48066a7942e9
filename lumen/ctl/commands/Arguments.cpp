#include "lumen/ctl/commands/Arguments.h"

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <sstream>

#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/values/Ipv6.h"

namespace lumenctl {

namespace {

const std::string settingsHeading = "settings: ";

}  // namespace

const CLI::Validator& interfaceName() {
  static const CLI::Validator validator(
      [](const std::string& name) -> std::string {
        // What the kernel takes (net/core/dev.c, dev_valid_name), less the control characters and
        // what looks like an option after one that lacks its name.
        const bool valid = !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
                           name.front() != '-' &&
                           std::all_of(name.begin(), name.end(), [](unsigned char c) {
                             return c > ' ' && c != 0x7F && c != '/' && c != ':';
                           });
        return valid ? "" : "'" + name + "' is not a valid interface name";
      },
      "", "interface name");
  return validator;
}

Role parseRole(const std::string& text) {
  for (const Role role : {Role::external, Role::internal}) {
    if (text == roleName(role)) return role;
  }
  throw WrongUsage("a role is 'external' or 'internal', not '" + text + "'");
}

bool parseSwitch(const std::string& what, const std::string& text) {
  if (text == "on") return true;
  if (text == "off") return false;
  throw WrongUsage(what + " is 'on' or 'off', not '" + text + "'");
}

std::string describeSettings(const std::vector<std::string>& names) {
  return settingsHeading + joined(names);
}

std::vector<std::string> settingsIn(const std::string& description) {
  std::istringstream text(description.substr(settingsHeading.size()));
  std::vector<std::string> names;
  for (std::string name; text >> name;) {
    if (name.back() == ',') name.pop_back();
    names.push_back(name);
  }
  return names;
}

std::vector<Assignment> parseAssignments(const std::vector<std::string>& texts,
                                         const std::vector<std::string>& names) {
  std::vector<Assignment> result;
  for (const std::string& text : texts) {
    const size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      throw WrongUsage("there is no setting '" + name + "', only " + joined(names));
    }
    if (equals == std::string::npos) throw WrongUsage("write " + name + "=VALUE");
    for (const Assignment& earlier : result) {
      if (earlier.name == name) throw WrongUsage("setting '" + name + "' is given twice");
    }
    result.push_back({name, text.substr(equals + 1)});
  }
  return result;
}

Port parsePort(const std::string& text) {
  const size_t slash = text.find('/');
  const std::string protocol = slash == text.npos ? "" : text.substr(slash + 1);
  Port port;
  if (protocol == "tcp" || protocol == "TCP") port.protocol = IPPROTO_TCP;
  if (protocol == "udp" || protocol == "UDP") port.protocol = IPPROTO_UDP;
  const char* const last = text.data() + std::min(slash, text.size());
  const auto [end, error] = std::from_chars(text.data(), last, port.number);
  if (error != std::errc() || end != last || port.number < 1 || port.number > 65535 ||
      port.protocol == 0) {
    throw WrongUsage("a port is written like 8080/tcp or 5060/udp, not '" + text + "'");
  }
  return port;
}

std::string parseIpv6Host(const std::string& text) {
  const auto host = lumen::Ipv6Address::parse(text);
  if (!host) throw WrongUsage("an IPv6 host is written like 2001:db8::10, not '" + text + "'");
  return host->text();
}

}  // namespace lumenctl
