#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/message.h"

namespace lm {

/// How long a program waits for a reply where nothing else is said, in milliseconds.
inline constexpr uint32_t exchangeLimit = 6000;

/// What becomes of a request whose sender does not wait for the reply any longer.
enum class GivenUp {
  undone,  ///< it is not carried out, or what it changed is undone
  stands,  ///< it is carried out all the same: the sender has forgotten what the request ends
};

/// Something that answers commands and can send some itself.
///
/// A program adds its handlers to its Looper, which calls `dispatch` for each request and each
/// notification that arrives, one at a time and never from inside an exchange.
class Handler {
 public:
  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  /// Leaves the looper that it was added to.
  virtual ~Handler();

  /// Answers one command. What it returns goes back to the requester; for a notification it is
  /// dropped. Calls cmdGet, cmdSet or, for a command of neither, cmdUnknown.
  [[nodiscard]] virtual message dispatch(const message& request, uint32_t command);

  /// Reads the handler's settings. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdGet(const message& request);
  /// Writes the handler's settings. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdSet(const message& request);
  /// Any other command, and every notification. Here: the error "unknown command".
  [[nodiscard]] virtual message cmdUnknown(const message& request, uint32_t command);

  /// Sends `request` to the destination path in it and waits for the reply, at most `limit`
  /// milliseconds. Nothing else is dispatched meanwhile. A request that cannot be sent or is not
  /// answered in time gives an error reply, and `late` says what becomes of it: undone, it has
  /// changed nothing once the other side has caught up.
  [[nodiscard]] message exchangeCmd(const message& request, uint32_t command, uint32_t limit,
                                    GivenUp late = GivenUp::undone);

  /// From now on notifications `command` from path `source` are dispatched here, until
  /// unsubscribe. Neither waits for an answer.
  void subscribe(uint32_t command, const std::vector<uint32_t>& source);
  void unsubscribe(uint32_t command, const std::vector<uint32_t>& source);

  /// Tells every subscriber of this handler that the object `id` (lm::none: the settings) changed
  /// to `config`. Waits for nobody.
  void notifyChange(uint32_t id, const message& config);

  /// Hands the history service the message that takes back what `request` did. `undo` carries its
  /// own command; `text` tells the administrator what was changed. Waits for nobody.
  void sendUndo(const message& request, const message& undo, const std::string& text);

  /// For the platform's own code.
  class State;
  [[nodiscard]] State& state() { return *state_; }

 private:
  std::unique_ptr<State> state_;  // never null
};

}  // namespace lm
