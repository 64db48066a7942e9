#include "lumen/services/nat/PolicyFile.h"

#include <ini.h>

#include <algorithm>
#include <functional>
#include <set>

namespace lumen {

namespace {

// The parser cuts longer lines in two: what ends a long comment would be a setting.
constexpr size_t maxLine = 190;

/// The number of the first line that is too long, from 1; 0 when there is none.
size_t findLongLine(std::string_view text) {
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t length = std::min(text.find('\n'), text.size());
    if (length > maxLine) return number;
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return 0;
}

/// What the parser collects.
struct Reading {
  Policy policy;
  std::set<std::string, std::less<>> seen;
  Result<void> outcome;
};

int takeLine(void* user, const char* section, const char* name, const char* value) {
  auto& reading = *static_cast<Reading*>(user);
  if (!reading.outcome) return 0;
  if (*section != '\0') {
    reading.outcome = Failure{"sections are not used"};
  } else if (!reading.seen.insert(name).second) {
    reading.outcome = Failure{"\"" + std::string(name) + "\" is set twice"};
  } else {
    reading.outcome = reading.policy.set(name, value);
  }
  return reading.outcome ? 1 : 0;
}

}  // namespace

Result<Policy> parsePolicyFile(std::string_view text) {
  if (text.size() > maxPolicyFile) return Failure{": is too long"};
  if (text.find('\0') != std::string_view::npos) return Failure{": is no text"};
  if (const size_t number = findLongLine(text); number > 0) {
    return Failure{":" + std::to_string(number) + ": the line is too long"};
  }
  Reading reading;
  const int line = ini_parse_string(std::string(text).c_str(), takeLine, &reading);
  if (line > 0) {
    return Failure{
        ":" + std::to_string(line) + ": " +
        (reading.outcome ? "not a line of the form name = value" : reading.outcome.why())};
  }
  return reading.policy;
}

}  // namespace lumen
