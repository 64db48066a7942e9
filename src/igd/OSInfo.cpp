#include "igd/OSInfo.h"

#include <array>
#include <cstring>
#include <string>

namespace {

// The buffer size for gethostname, including the zero: a name has at most three characters here.
constexpr size_t nameLimit = 4;

std::string readName(OSInfo::HostName hostName, size_t limit) {
  std::array<char, 64> buffer{};
  if (hostName(buffer.data(), limit) != 0) return {};
  return {buffer.data(), strnlen(buffer.data(), limit)};
}

std::string machineName(OSInfo::HostName hostName) {
  const std::string name = readName(hostName, nameLimit);
  // Some C libraries truncate a long name and report success: without a final zero, or so that a
  // larger buffer returns more.
  const bool whole = name.size() < nameLimit && name == readName(hostName, nameLimit + 1);
  return whole ? name : std::string();
}

}  // namespace

OSInfo::OSInfo(HostName hostName) : Service("urn:schemas-microsoft-com:service:OSInfo:1") {
  addVar("OSMajorVersion", {VAR_UI4, true}).setValue("2");
  addVar("OSMinorVersion", {VAR_UI4, true}).setValue("9");
  addVar("OSBuildNumber", {VAR_UI4, true}).setValue("1234");
  addVar("OSMachineName", {VAR_STRING, true}).setValue(machineName(hostName));
}
