#include "lumen/ctl/Arguments.h"

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "lumen/ctl/Errors.h"

namespace lumenctl {

const CLI::Validator& interfaceName() {
  static const CLI::Validator validator(
      [](const std::string& name) -> std::string {
        // What the kernel takes (net/core/dev.c, dev_valid_name), less the control characters.
        const bool valid = !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
                           std::all_of(name.begin(), name.end(), [](unsigned char c) {
                             return c > ' ' && c != 0x7F && c != '/' && c != ':';
                           });
        return valid ? "" : "'" + name + "' is no name of an interface";
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

Port parsePort(const std::string& text) {
  const std::string_view view = text;
  const size_t slash = view.find('/');
  const std::string_view number = view.substr(0, slash);
  Port port;
  const auto [end, error] =
      std::from_chars(number.data(), number.data() + number.size(), port.number);
  const bool isNumber = error == std::errc() && end == number.data() + number.size();
  const std::string_view protocol = slash == view.npos ? "" : view.substr(slash + 1);
  if (protocol == "tcp" || protocol == "TCP") port.protocol = IPPROTO_TCP;
  if (protocol == "udp" || protocol == "UDP") port.protocol = IPPROTO_UDP;
  if (!isNumber || port.number < 1 || port.number > 65535 || port.protocol == 0) {
    throw WrongUsage("a port is written like 8080/tcp or 5060/udp, not '" + text + "'");
  }
  return port;
}

}  // namespace lumenctl
