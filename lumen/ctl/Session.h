#pragma once

#include <iosfwd>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/router/Client.h"
#include "lumen/ctl/router/Router.h"
#include "lumen/ctl/text/Table.h"

namespace lumenctl {

using Json = nlohmann::ordered_json;

/// One run of the program: what it talks to and how it answers.
class Session {
 public:
  /// `machine` and `out` must outlive this.
  Session(Connect connect, Machine& machine, std::ostream& out);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  /// Says what has been changed: a line at once, or, for programs, kept until finish().
  void done(const std::string& text);
  /// Prints a table, in colours where there are any.
  void print(const Table& table);
  /// `text` in its colour where there are any.
  [[nodiscard]] std::string coloured(const std::string& text, Colour colour);
  /// Prints `value` as JSON that any terminal can show.
  void print(const Json& value);
  /// Prints `value` as JSON on a line of its own, at once.
  void printLine(const Json& value);
  /// Prints the changes that are still to be printed: an empty list of them for a command that
  /// found nothing to change.
  void finish();

  /// Connects when first called; throws PlatformSilent when that is not possible.
  [[nodiscard]] Router& router();
  [[nodiscard]] Machine& machine() { return machine_; }
  [[nodiscard]] std::ostream& out() { return out_; }

  std::string root;      ///< of --root; empty: the machine's own platform
  bool json = false;     ///< of --json: answers are for programs
  int status = 0;        ///< the exit status of a command that was done
  bool changes = false;  ///< the command changes something and answers with what it did

 private:
  Connect connect_;
  Machine& machine_;
  std::ostream& out_;
  Json done_ = Json::array();
  std::unique_ptr<Client> client_;  // null until first used
  std::optional<Router> router_;
};

}  // namespace lumenctl
