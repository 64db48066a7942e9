#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/addresses/AddressTable.h"
#include "lumen/services/interfaces/InterfaceTable.h"
#include "services/interfaces/FakeLinks.h"
#include "services/interfaces/RecordingNames.h"
#include "services/interfaces/RecordingNotifier.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace lumen {

/// The interface and address tables on a kernel in memory, with a store of their own.
class Router : public testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  /// The text of a record; `state`: its fields `disabled` and `running`.
  [[nodiscard]] static std::string record(uint32_t id, uint32_t index, const std::string& name,
                                          const std::string& state, uint32_t hardwareType = 1,
                                          uint32_t flags = 0);
  /// The line of the notification of a state.
  [[nodiscard]] static std::string stateOf(const std::string& record) {
    return "state records=[{" + record + "}]";
  }

  /// Starts the tables. Links that are there already are not in the recorded notifications.
  void starts();
  /// lumend ends and starts again on the same store; the kernel keeps running.
  void restarts();
  /// Starts with the link wan0, which then gets 45.45.45.2/24. Those notifications are taken.
  void startsWithWan(bool running = true);
  /// The content of a record's file.
  [[nodiscard]] std::string stored(uint32_t record) const {
    return store_.read(std::to_string(record));
  }
  /// What an earlier lumend has left in the store.
  void storeHolds(uint32_t record, const lm::message& content);
  /// Nothing can be stored from now on.
  void storeBecomesUnwritable() { std::filesystem::remove_all(store_.path()); }

  /// The fields of a request about one object: its id.
  [[nodiscard]] static lm::message object(uint32_t id);
  [[nodiscard]] lm::message asks(const Caller& caller, uint32_t command,
                                 const lm::message& request = {});
  [[nodiscard]] lm::message asksAddresses(uint32_t command, const lm::message& request = {});
  [[nodiscard]] lm::message administratorKeeps(const std::string& name, uint32_t role);
  [[nodiscard]] lm::message administratorForgets(const std::string& name);
  void passes(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(std::chrono::milliseconds(0));
  }
  /// The answer as text.
  [[nodiscard]] std::string setsDisabled(const Caller& caller, const std::string& name,
                                         bool disabled);
  /// The list as a service sees it.
  [[nodiscard]] Lines lists();
  [[nodiscard]] uint32_t idOf(const std::string& name);
  [[nodiscard]] Lines notified() { return notifier.take(); }

  const Caller administrator{1, 0, "", true};
  const Caller daemon{2, 40, "upnp", false};

  FakeLinks kernel;
  RecordingNotifier notifier;
  RecordingNames keptNames;

 private:
  lm::test::TempDir store_;

 protected:
  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  std::unique_ptr<AddressTable> addressTable;
  std::unique_ptr<InterfaceTable> interfaceTable;
};

}  // namespace lumen
