#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "lumen/ctl/router/Records.h"

/// Arguments that several commands take.
namespace lumenctl {

/// Refuses what cannot be the name of a Linux network interface.
[[nodiscard]] const CLI::Validator& interfaceName();

/// "external" or "internal"; throws WrongUsage for anything else.
[[nodiscard]] Role parseRole(const std::string& text);

/// "on" or "off"; throws WrongUsage, which names `what`, for anything else.
[[nodiscard]] bool parseSwitch(const std::string& what, const std::string& text);

/// A port as the tables show it: "8080/tcp".
struct Port {
  uint32_t number = 0;    ///< 1 to 65535
  uint32_t protocol = 0;  ///< IP protocol number: TCP or UDP
};

/// "name=value".
struct Assignment {
  std::string name;
  std::string value;
};

/// The description of an argument that sets some of `names`, and the names in such a description.
[[nodiscard]] std::string describeSettings(const std::vector<std::string>& names);
[[nodiscard]] std::vector<std::string> settingsIn(const std::string& description);

/// Throws WrongUsage for what has no '=', for a name that is not in `names` and for one that is
/// there twice.
[[nodiscard]] std::vector<Assignment> parseAssignments(const std::vector<std::string>& texts,
                                                       const std::vector<std::string>& names);

/// Throws WrongUsage for anything but a port.
[[nodiscard]] Port parsePort(const std::string& text);

/// Throws WrongUsage for anything but an IPv6 address. Returns its short spelling.
[[nodiscard]] std::string parseIpv6Host(const std::string& text);

}  // namespace lumenctl
