#include "lumen/ctl/CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/Session.h"
#include "lumen/ctl/UsageErrors.h"
#include "lumen/ctl/machine/LogHint.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr int statusRefused = 1;
constexpr int statusWrongUsage = 2;

int refused(std::ostream& err, const std::string& why) {
  err << "lumenctl: " << printable(why) << '\n';
  return statusRefused;
}

int wrongUsage(std::ostream& err, const CLI::App& app, const WrongUsage& error) {
  const std::string advice = error.advice().empty() ? usageAdvice(app) : error.advice();
  err << "lumenctl: " << printable(error.what()) << '\n' << advice << '\n';
  return statusWrongUsage;
}

}  // namespace

void addCommandLine(CLI::App& app, Session& session) {
  setHelpFormat(app);
  app.set_version_flag("--version", "lumenctl " PALINODE_VERSION, "show the version");
  app.add_option("--root", session.root, "talk to the platform that lumend --root DIR runs")
      ->type_name("DIR");
  app.add_flag("--json", session.json, "answer in JSON");
  app.require_subcommand(1);
  app.fallthrough();  // --root and --json may follow the command
  addExamples(app,
              {{"upnp setup --internal br-lan --external wan0", "make this router a gateway"},
               {"status", "see what it does"},
               {"nat close 8080/tcp", "close a port"},
               {"nat list --json", "the open ports, for a program"}},
              "Exit status: 0 done; 1 refused, with the reason on standard error; 2 wrong usage.\n"
              "help COMMAND and COMMAND --help say more about a command.");

  addStatusCommand(app, session);
  addUpnpCommands(app, session);
  addInterfaceCommands(app, session);
  addAddressCommands(app, session);
  addNatCommands(app, session);
  addWebCommands(app, session);
  addPcpCommands(app, session);
  addHistoryCommands(app, session);
  addMonitorCommand(app, session);
  addServiceCommands(app, session);
  addIdentityCommand(app, session);
  addHelpCommand(app, session);
}

int run(const std::vector<std::string>& arguments, const Connect& connect, Machine& machine,
        std::ostream& out, std::ostream& err) {
  Session session(connect, machine, out);
  CLI::App app("Shows and changes what this router's platform and its Internet gateway do.",
               "lumenctl");
  addCommandLine(app, session);

  try {
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    session.finish();
    if (!out.flush()) throw Refused(outputFailed);
    return session.status;
  } catch (const CLI::Success& asked) {  // --help, --version
    const int status = app.exit(asked, out, err);
    return out.flush() ? status : refused(err, outputFailed);
  } catch (const CLI::ParseError& error) {
    return wrongUsage(err, app, explained(app, error));
  } catch (const WrongUsage& error) {
    return wrongUsage(err, app, error);
  } catch (const PlatformSilent& error) {
    session.finish();
    const int status = refused(err, error.what());
    err << printable(logHint(machine, session.root)) << '\n';
    return status;
  } catch (const Refused& error) {
    session.finish();
    return refused(err, error.what());
  }
}

}  // namespace lumenctl
