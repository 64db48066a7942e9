#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "lumen/runtime/Connection.h"
#include "platform/Handler.h"

namespace lm {

/// A program's handlers by number and their subscriptions: where a message that arrives goes.
class HandlerTable {
 public:
  /// `connection` must outlive the table.
  explicit HandlerTable(Connection& connection);

  /// False when the number is taken.
  [[nodiscard]] bool add(uint32_t number, Handler& handler);
  /// Ends the handler's subscriptions too.
  void remove(Handler& handler);

  void subscribe(Handler& handler, uint32_t command, const std::vector<uint32_t>& source);
  void unsubscribe(Handler& handler, uint32_t command, const std::vector<uint32_t>& source);

  /// Calls the handler of a request and answers it, or the subscribers of a notification. Handlers
  /// may come and go meanwhile.
  void dispatch(const message& m);

  /// Leaves the answer to the request that is being dispatched to the caller. Returns the serial of
  /// the request; none when it has been taken before, or a notification is dispatched.
  [[nodiscard]] std::optional<uint32_t> takeAnswer();

 private:
  using Topic = std::pair<uint32_t, std::vector<uint32_t>>;  // command, source path

  void tellBroker(uint32_t command, const Topic& topic, Handler& handler);
  [[nodiscard]] message answer(const message& request);

  Connection& connection_;
  std::optional<uint32_t> unanswered_;  // serial of the request that is being dispatched
  std::map<uint32_t, Handler*> handlers_;
  std::map<Topic, std::vector<Handler*>> subscribers_;  // in the order of subscription
};

}  // namespace lm
