#include "lumen/ctl/Session.h"

#include <ostream>
#include <utility>

#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

Session::Session(Connect connect, Machine& machine, std::ostream& out)
    : connect_(std::move(connect)), machine_(machine), out_(out) {}

Session::~Session() = default;

void Session::done(const std::string& text) {
  if (json) {
    done_.push_back(text);
  } else {
    out_ << printable(text) << '\n' << std::flush;
  }
}

void Session::print(const Table& table) {
  for (const std::string& line : table.lines(machine_.showsColours())) out_ << line << '\n';
}

std::string Session::coloured(const std::string& text, Colour colour) {
  return machine_.showsColours() ? lumenctl::coloured(text, colour) : text;
}

void Session::print(const Json& value) {
  out_ << value.dump(2, ' ', true, Json::error_handler_t::replace) << '\n';
}

void Session::printLine(const Json& value) {
  out_ << value.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n' << std::flush;
}

void Session::finish() {
  if (json && changes) print(Json::object({{"done", std::exchange(done_, Json::array())}}));
  changes = false;
}

Router& Session::router() {
  if (!router_) {
    lumen::Result<std::unique_ptr<Client>> connected = connect_(root);
    if (!connected) throw PlatformSilent(connected.why());
    client_ = std::move(*connected);
    router_.emplace(*client_);
  }
  return *router_;
}

}  // namespace lumenctl
