#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/PortGrant.h"
#include "platform/message.h"

namespace lumen {

/// The sender of a request, as the kernel identified it at connect.
struct Caller {
  uint64_t connection = 0;     ///< never used twice in one run
  uint32_t service = 0;        ///< its service number: registered, or that of its user; 0: none
  std::string name;            ///< that service's name; empty: none
  bool administrator = false;  ///< root or a member of the group lumen
  uint32_t user = 0;           ///< of its process
  bool reads = false;          ///< a service that may read what administrators can
  std::optional<PortGrant> ports = std::nullopt;  ///< of its service; none: it may open none

  [[nodiscard]] bool mayRead() const { return administrator || reads; }
  /// A service that opens ports has to know from where to where.
  [[nodiscard]] bool mayKnowRoles() const { return mayRead() || ports.has_value(); }
};

/// A handler of a service that lives in this process. It checks the caller's rights itself, since
/// only it knows what a field means, and answers at once.
class LocalHandler {
 public:
  virtual ~LocalHandler() = default;

  /// Answers one request: with the error "not permitted" what the caller may not do, with "unknown
  /// command" a command that the handler does not have.
  [[nodiscard]] virtual lm::message handle(const Caller& caller, uint32_t command,
                                           const lm::message& request) = 0;

  /// What undoes the change that `handle` has made since this was called last; empty: it made none.
  /// To be called at most once, while this handler and the connection of the caller live.
  /// Afterwards the caller sees what it saw before the change; what others have changed meanwhile
  /// stays where that is possible.
  [[nodiscard]] std::function<void()> takeUndo() { return std::exchange(undo_, nullptr); }

  /// Whether only administrators and services that may read get its notifications. A service that
  /// may open ports gets those of its own rules.
  [[nodiscard]] virtual bool isPrivate() const { return false; }

  /// The connection has ended, for whatever reason: removes what depends on it.
  virtual void connectionEnded(uint64_t connection) { (void)connection; }

 protected:
  /// To be called from `handle`: `undo` undoes the change if its caller gives up.
  void undoWith(std::function<void()> undo) { undo_ = std::move(undo); }

 private:
  std::function<void()> undo_;
};

/// Sends notifications to their subscribers.
class Notifier {
 public:
  virtual ~Notifier() = default;
  /// Sends `fields` as notification `command` from path `source`. Neither blocks nor dispatches
  /// anything.
  virtual void notify(uint32_t command, const std::vector<uint32_t>& source,
                      const lm::message& fields) = 0;
  /// The same, and to the connection `owner` too, if it has subscribed without being a reader.
  virtual void notifyWithOwner(uint64_t owner, uint32_t command,
                               const std::vector<uint32_t>& source, const lm::message& fields) {
    (void)owner;
    notify(command, source, fields);
  }
};

}  // namespace lumen
