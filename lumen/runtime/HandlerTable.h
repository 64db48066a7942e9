#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "lumen/runtime/Connection.h"
#include "lumen/values/ElementOrder.h"
#include "platform/Handler.h"

namespace lm {

/// A program's handlers by number, and their subscriptions. Dispatches the messages that arrive.
class HandlerTable {
 public:
  /// How many of the latest changes can be undone. Only administrators change the settings of
  /// programs, and each of them waits for one change at a time.
  static constexpr size_t maxUndos = 64;

  /// `connection` must outlive the table.
  explicit HandlerTable(Connection& connection);

  /// False when the number is taken.
  [[nodiscard]] bool add(uint32_t number, Handler& handler);
  /// Ends the handler's subscriptions too.
  void remove(Handler& handler);

  void subscribe(Handler& handler, uint32_t command, const std::vector<uint32_t>& source);
  void unsubscribe(Handler& handler, uint32_t command, const std::vector<uint32_t>& source);

  /// Calls the handler of a request and answers it, or the subscribers of a notification. Handlers
  /// may come and go meanwhile. Undoes the changes of a request that the broker reports as
  /// cancelled after it was carried out.
  void dispatch(const message& m);

  /// The request that is being dispatched has made a change in handler `number` that `undo`
  /// undoes; it carries its own command.
  void noteUndo(uint32_t number, const message& undo);

  /// Hands the answer to the request that is being dispatched over to the caller. Returns the
  /// serial of the request; none when it has been taken before, or a notification is dispatched.
  [[nodiscard]] std::optional<uint32_t> takeAnswer();

 private:
  using Topic = std::pair<uint32_t, std::vector<uint32_t>>;  // command, source path
  struct Undo {
    uint32_t serial = 0;  // of the request that made the change
    uint32_t number = 0;  // of the handler
    message request;
  };

  void undo(uint32_t serial);
  void sendToBroker(uint32_t command, const Topic& topic, Handler& handler);
  [[nodiscard]] message answer(const message& request);

  Connection& connection_;
  std::optional<uint32_t> unanswered_;  // serial of the request that is being dispatched
  std::optional<uint32_t> current_;     // the same, answered or not
  std::deque<Undo> undos_;              // the newest last
  std::map<uint32_t, Handler*> handlers_;
  // Those of a topic are in the order of subscription.
  std::map<Topic, std::vector<Handler*>, lumen::ElementOrder> subscribers_;
};

}  // namespace lm
