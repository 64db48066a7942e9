#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The known names of the commands and fields of messages.
namespace lumenctl {

/// The service and the handler that a message is about: where a request goes, and where its reply
/// and notifications come from. It decides what the keys and commands of the message mean.
struct Subject {
  uint32_t service = 0;
  uint32_t handler = 0;

  /// Of a path: a missing handler is number 0.
  [[nodiscard]] static Subject of(const std::vector<uint32_t>& path) {
    return {path.empty() ? 0 : path[0], path.size() < 2 ? 0 : path[1]};
  }
};

enum class Meaning {
  plain,    ///< the plain value
  address,  ///< an IPv4 address
  command,  ///< a command of the subject
  undo,     ///< a message about the subject of a change in the history
};

struct FieldName {
  const char* name = nullptr;
  uint32_t key = 0;
  Meaning meaning = Meaning::plain;
};

/// Null when the field is not known.
[[nodiscard]] const FieldName* findField(Subject subject, uint32_t key);

/// "add"; for one that is not known "command 0x3".
[[nodiscard]] std::string commandName(Subject subject, uint32_t command);

}  // namespace lumenctl
