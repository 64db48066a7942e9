#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/values/Ipv4.h"
#include "lumen/values/Ipv6.h"

namespace lumenctl {

namespace {

struct Arguments {
  std::vector<std::string> agents;
  bool noAgents = false;
};

/// Where it is served, or why it is not.
std::string placeText(const PcpServer& server) {
  std::string text = server.served.empty() ? "" : "UDP port 5351 on " + server.served;
  if (!server.problem.empty()) text += (text.empty() ? "" : "; ") + server.problem;
  return text.empty() ? "no internal interface has an address" : text;
}

/// Why it is none; empty: it is one.
std::string validAddress(const std::string& text) {
  if (lumen::Ipv4Address::parse(text) || lumen::Ipv6Address::parse(text)) return {};
  return "\"" + text + "\" is no IP address";
}

void print(Session& session, const PcpServer& server) {
  if (session.json) {
    session.print({{"enabled", server.enabled},
                   {"agents", server.agents},
                   {"served", server.served},
                   {"problem", server.problem},
                   {"ports", server.mappings},
                   {"pinholes", server.pinholes}});
    return;
  }
  if (!server.enabled) {
    session.out() << "NAT-PMP and PCP are switched off.\n";
    return;
  }
  session.out() << "NAT-PMP and PCP: " << printable(placeText(server)) << "; " << server.mappings
                << (server.mappings == 1 ? " open port" : " open ports");
  if (server.pinholes != 0) session.out() << ", " << server.pinholes << " of IPv6 hosts";
  session.out() << '\n';
  if (!server.agents.empty()) {
    session.out() << "May open ports to other hosts: " << printable(server.agents) << '\n';
  }
}

void switchOn(Session& session, const Arguments& arguments) {
  PcpServerChange change;
  change.enabled = true;
  if (arguments.noAgents || !arguments.agents.empty()) {
    change.agents = joined(arguments.agents, " ");
  }
  session.router().changePcpServer(change);
  session.done("NAT-PMP and PCP: " + placeText(session.router().pcpServer()));
}

}  // namespace

void addPcpCommands(CLI::App& app, Session& session) {
  CLI::App* group =
      app.add_subcommand("pcp", "NAT-PMP and PCP, for programs on the LAN that do not use UPnP");
  addExamples(*group, {{"pcp on", "let programs on the LAN open ports with them"},
                       {"pcp status", "where they are answered"},
                       {"pcp off", "close their ports, and answer no more"}});
  const auto show = [&session] { print(session, session.router().pcpServer()); };
  runWhenBare(*group, show);

  auto arguments = std::make_shared<Arguments>();
  CLI::App* on = group->add_subcommand("on", "answer them, also after the next start");
  addExamples(*on, {{"pcp on", "at each internal interface"},
                    {"pcp on --agent 192.168.88.5", "that host may open ports to others"},
                    {"pcp on --no-agents", "a host opens ports to itself only"}});
  CLI::Option* agents = on->add_option("--agent", arguments->agents,
                                       "hosts that may open ports to others by PCP, in place of "
                                       "those set before; none unless set")
                            ->check(validAddress)
                            ->type_name("ADDRESS...");
  on->add_flag("--no-agents", arguments->noAgents, "no host may")->excludes(agents);
  on->callback([&session, arguments] {
    session.changes = true;
    switchOn(session, *arguments);
  });

  CLI::App* off = group->add_subcommand("off", "close their ports, and answer no more");
  addExamples(*off, {{"pcp off", "what programs opened by UPnP stays open"}});
  off->callback([&session] {
    session.changes = true;
    PcpServerChange change;
    change.enabled = false;
    session.router().changePcpServer(change);
    session.done("NAT-PMP and PCP: switched off");
  });

  CLI::App* status = group->add_subcommand("status", "where they are answered, and what is wrong");
  addExamples(*status, {{"pcp status", "its interfaces"}, {"pcp status --json", "for a program"}});
  status->callback(show);
}

}  // namespace lumenctl
