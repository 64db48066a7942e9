#include <CLI/App.hpp>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

void addIdentityCommand(CLI::App& app, Session& session) {
  CLI::App* command = app.add_subcommand("identity", "the unique identity of this router");
  addExamples(*command, {{"identity", "what its UPnP device names end in"}});
  command->callback([&session] {
    const std::string identity = session.router().identity();
    if (session.json) {
      session.print(Json::object({{"identity", identity}}));
    } else {
      session.out() << printable(identity) << '\n';
    }
  });
}

}  // namespace lumenctl
