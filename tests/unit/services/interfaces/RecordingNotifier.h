#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/LocalHandler.h"
#include "platform/Keys.h"
#include "services/interfaces/MessageText.h"

namespace lumen {

/// Records every notification as a line: "interface", "state" or "address", then its fields. Those
/// of changed roles are counted.
class RecordingNotifier : public Notifier {
 public:
  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    if (onNotify) onNotify();
    if (command == 0x10005 && source == std::vector<uint32_t>{20, 0}) {
      ++roles;
      return;
    }
    messages.push_back(fields);
    lines.push_back(kind(command, source) + " " + text(fields));
  }

  /// What was notified since the last call.
  [[nodiscard]] std::vector<std::string> take() {
    messages.clear();
    return std::exchange(lines, {});
  }

  std::vector<std::string> lines;
  std::vector<lm::message> messages;
  int roles = 0;
  std::function<void()> onNotify;

 private:
  static std::string kind(uint32_t command, const std::vector<uint32_t>& source) {
    if (command == 0x10004 && source == std::vector<uint32_t>{20, 0}) return "interface";
    if (command == 0xfe000b && source == std::vector<uint32_t>{20, 0}) return "state";
    if (command == 0xfe000b && source == std::vector<uint32_t>{20, 1}) return "address";
    return "unexpected";
  }
};

}  // namespace lumen
