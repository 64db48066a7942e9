#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/message.h"

namespace lm {

/// The default time limit for a reply, in milliseconds.
inline constexpr uint32_t exchangeLimit = 6000;

/// What happens to a request whose sender has stopped waiting for the reply.
enum class GivenUp {
  undone,  ///< it is not carried out, or its changes are undone
  stands,  ///< it is carried out anyway: the sender has forgotten what the request ends
};

/// Something that answers commands and can send its own.
///
/// A program adds its handlers to its Looper, which calls `dispatch` for each request and each
/// notification that arrives, one at a time and never from inside an exchange.
class Handler {
 public:
  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  /// Removes itself from the looper to which it was added.
  virtual ~Handler();

  /// Answers one command. The result goes to the requester; for a notification it is dropped. Calls
  /// cmdGet, cmdSet or, for any other command, cmdUnknown.
  [[nodiscard]] virtual message dispatch(const message& request, uint32_t command);

  /// Reads the handler's settings. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdGet(const message& request);
  /// Writes the handler's settings. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdSet(const message& request);
  /// Handles any other command and every notification. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdUnknown(const message& request, uint32_t command);

  /// Sends `request` to the destination path in it and waits at most `limit` milliseconds for the
  /// reply, without dispatching anything else. A request that cannot be sent or is not answered in
  /// time results in an error reply, and `late` decides its fate: an undone request has changed
  /// nothing once the other side has caught up.
  [[nodiscard]] message exchangeCmd(const message& request, uint32_t command, uint32_t limit,
                                    GivenUp late = GivenUp::undone);

  /// Requests that notifications `command` from path `source` are dispatched here, until
  /// unsubscribe. Neither call waits for an answer.
  void subscribe(uint32_t command, const std::vector<uint32_t>& source);
  void unsubscribe(uint32_t command, const std::vector<uint32_t>& source);

  /// Notifies every subscriber of this handler that the object `id` (lm::none: the settings)
  /// changed to `config`. Does not wait.
  void notifyChange(uint32_t id, const message& config);

  /// Sends the history service the message that undoes `request`. `undo` carries its own command;
  /// `text` describes the change to the administrator. Does not wait.
  void sendUndo(const message& request, const message& undo, const std::string& text);

  /// For the platform's own code.
  class State;
  [[nodiscard]] State& state() { return *state_; }

 private:
  std::unique_ptr<State> state_;  // never null
};

}  // namespace lm
