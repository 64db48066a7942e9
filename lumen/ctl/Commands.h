#pragma once

#include <CLI/App.hpp>
#include <functional>

#include "lumen/ctl/Session.h"

/// The command line: all of it, and the groups of commands, a file for each. Every function here
/// adds its commands to `app`; their callbacks run them on `session`, which must outlive `app`.
namespace lumenctl {

/// Makes `app` lumenctl: every option and every group of commands.
void addCommandLine(CLI::App& app, Session& session);

void addStatusCommand(CLI::App& app, Session& session);
void addUpnpCommands(CLI::App& app, Session& session);
void addSetupCommand(CLI::App& upnp, Session& session);
void addCheckCommand(CLI::App& upnp, Session& session);
void addInterfaceCommands(CLI::App& app, Session& session);
void addAddressCommands(CLI::App& app, Session& session);
void addNatCommands(CLI::App& app, Session& session);
void addPortLogCommand(CLI::App& nat, Session& session);
void addServiceCommands(CLI::App& app, Session& session);
void addWebCommands(CLI::App& app, Session& session);
void addPcpCommands(CLI::App& app, Session& session);
void addHistoryCommands(CLI::App& app, Session& session);
void addMonitorCommand(CLI::App& app, Session& session);
void addIdentityCommand(CLI::App& app, Session& session);
void addHelpCommand(CLI::App& app, Session& session);

/// Makes `group`, when it is named without a subcommand, call `shows`.
void runWhenBare(CLI::App& group, std::function<void()> shows);

}  // namespace lumenctl
