#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/FakeMachine.h"
#include "lumen/ctl/router/Client.h"
#include "lumen/values/ElementOrder.h"
#include "platform/message.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {

/// The platform and the gateway as lumenctl sees them: tables that its requests read and change,
/// and a record of every request.
class FakePlatform {
 public:
  using Path = std::vector<uint32_t>;

  struct Result {
    int status = -1;
    std::string out;
    std::string err;
  };

  FakePlatform();

  /// Runs lumenctl with these arguments.
  Result lumenctl(const std::vector<std::string>& arguments);

  // What the router has. Addresses are dotted text.
  /// A link, kept when `role` is 1 (external) or 2 (internal). Returns its id.
  uint32_t hasLink(const std::string& name, uint32_t role = 0);
  /// A link that is not as usual: running, up.
  lm::message& link(const std::string& name);
  void hasAddress(const std::string& link, const std::string& address, bool disabled = false);
  void hasPort(uint32_t port, uint32_t protocol, const std::string& client, uint32_t clientPort);
  [[nodiscard]] lm::message& lastPort() { return rules_.back(); }
  /// A port of an IPv6 host.
  void hasPinhole(const std::string& host, uint32_t port, uint32_t protocol);
  void gatewayUses(const std::string& link, uint32_t role, bool disabled = false);
  void gatewayIs(const std::string& state, uint32_t pid = 0, uint64_t nextStart = 0);
  /// A change that the gateway's handler 0 made, and the command that undoes it. Returns its
  /// id.
  uint32_t wasChanged(const std::string& text, uint32_t undoCommand, lm::message undo);
  /// Something happened to a port; with `later` only while that is followed.
  void hadPortEvent(const lm::nat::LogRecord& event, bool later = false);
  /// A port was refused, since a program of the router listens there.
  void refusedOwnPort(const lm::nat::LogRecord& event);
  /// While it is monitored, `m` passes from one number to another.
  void passes(uint32_t from, uint32_t to, lm::message m, bool cut = false);
  /// The platform ends after that; otherwise the user asks lumenctl to end.
  void ends() { ends_ = true; }
  /// The status page is installed, and says this of itself.
  void pcpIs(bool enabled, const std::string& served, const std::string& problem = "");
  void webPageIs(bool enabled, const std::string& served, const std::string& problem = "");
  void gatewayIsNotInstalled() { services_.clear(); }
  [[nodiscard]] lm::message& settings() { return settings_; }
  /// The policy of open ports.
  [[nodiscard]] lm::message& policy() { return policy_; }

  /// The machine that lumenctl runs on.
  [[nodiscard]] FakeMachine& machine() { return machine_; }

  // What goes wrong.
  /// Every such request is refused from now on.
  void refuses(const Path& destination, uint32_t command, const std::string& text);
  /// No such request is answered from now on, for the reason `why`.
  void leavesUnanswered(const Path& destination, uint32_t command, const std::string& why);
  void cannotBeReached() { reachable_ = false; }
  void standardOutputIsFull() { outputIsFull_ = true; }
  /// A table's pages hold one record each; with `endless` the cursor does not rise.
  void sendsShortPages(bool endless = false);

  // What happened.
  /// Every request since forgetRequests(): "[20,0] fe0005 20010005="wan0" 08010010=1".
  [[nodiscard]] const std::vector<std::string>& requests() const { return requests_; }
  /// Those of them that change something.
  [[nodiscard]] std::vector<std::string> changes() const;
  [[nodiscard]] bool wasAsked(const std::string& destination) const;
  void forgetRequests() { requests_.clear(); }
  /// How long lumenctl waits for an answer from there.
  [[nodiscard]] std::chrono::milliseconds limitOf(const Path& destination) {
    return limits_[destination];
  }
  /// The argument of --root.
  [[nodiscard]] const std::string& root() const { return root_; }

 private:
  class Connection;

  lumen::Result<std::optional<lm::message>> nextShown();
  lumen::Result<lm::message> answer(const Path& destination, uint32_t command,
                                    const lm::message& request);
  lm::message page(const std::vector<lm::message>& table, const lm::message& request) const;
  lm::message changeTable(std::vector<lm::message>& table, uint32_t command,
                          const lm::message& request);
  lm::message keep(const lm::message& request);

  FakeMachine machine_;
  std::vector<lm::message> links_;
  std::vector<lm::message> addresses_;
  std::vector<lm::message> rules_;
  std::vector<lm::message> pinholes_;
  std::vector<lm::message> services_;
  std::vector<lm::message> objects_;
  std::vector<lm::message> history_;
  std::vector<lm::message> portEvents_;
  std::vector<lm::message> refusalsOfOwnPorts_;
  std::deque<lm::message> shown_;
  bool ends_ = false;
  lm::message settings_;
  lm::message policy_;
  lm::message webPage_;
  lm::message pcp_;
  std::map<std::pair<Path, uint32_t>, std::string, lumen::ElementOrder> refusals_;
  std::map<std::pair<Path, uint32_t>, std::string, lumen::ElementOrder> silences_;
  std::vector<std::string> requests_;
  std::string root_;
  std::map<Path, std::chrono::milliseconds, lumen::ElementOrder> limits_;
  uint32_t nextId_ = 1;
  size_t pageSize_ = 64;
  bool endless_ = false;
  bool reachable_ = true;
  bool outputIsFull_ = false;
};

}  // namespace lumenctl
