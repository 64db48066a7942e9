#include <CLI/App.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/commands/Arguments.h"
#include "lumen/ctl/router/Ports.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/services/nat/Policy.h"

namespace lumenctl {

namespace {

void list(Session& session) {
  const std::vector<NatRule> rules = session.router().rules();
  const std::vector<Pinhole> pinholes = session.router().pinholes();
  if (session.json) {
    Json all = portsAsJson(rules);
    for (const Json& one : pinholesAsJson(pinholes)) all.push_back(one);
    return session.print(all);
  }
  if (rules.empty() && pinholes.empty()) session.out() << "No port is open.\n";
  session.print(portsAsTable(rules));
  if (!rules.empty() && !pinholes.empty()) session.out() << '\n';
  session.print(pinholesAsTable(pinholes));
}

bool isAt(const Pinhole& pinhole, const Port& port) {
  return pinhole.port == port.number && pinhole.protocol == port.protocol;
}

void closePinhole(Session& session, const std::string& text, const std::string& hostText) {
  const Port port = parsePort(text);
  const std::string host = parseIpv6Host(hostText);
  for (const Pinhole& pinhole : session.router().pinholes()) {
    if (!isAt(pinhole, port) || pinhole.host != host) continue;
    session.router().closePinhole(pinhole.id);
    return session.done(text + " " + host + ": closed");
  }
  throw Refused("port " + text + " of " + host + " is not open");
}

/// A router with two external addresses may have the port open on both.
void close(Session& session, const std::string& text) {
  const Port port = parsePort(text);
  bool found = false;
  bool closes = false;
  for (const NatRule& rule : session.router().rules()) {
    if (rule.external.port != port.number || rule.protocol != port.protocol) continue;
    found = true;
    if (rule.closed) continue;
    session.router().closeRule(rule.id);
    session.done(text + ": closed");
    closes = true;
  }
  if (!found) {
    std::string why = "port " + text + " is not open";
    for (const Pinhole& pinhole : session.router().pinholes()) {
      if (isAt(pinhole, port)) why += "; add " + pinhole.host + " to close that of this host";
    }
    throw Refused(why);
  }
  if (!closes && !session.json) {
    session.out() << text
                  << ": already closed; listed until the program that opened it removes it\n";
  }
}

struct Limit {
  const char* name;
  const char* meaning;
  std::string (*text)(const NatPolicy& policy);
  void (*assign)(NatPolicyChange& change, const lumen::Policy& wanted);
};

constexpr std::array<Limit, 6> policyTable = {{
    {"external-ports", "ports that may be opened",
     [](const NatPolicy& p) { return p.externalPorts; },
     [](NatPolicyChange& c, const lumen::Policy& p) { c.externalPorts = p.externalPorts.text(); }},
    {"internal-clients", "hosts that they may be opened to",
     [](const NatPolicy& p) { return p.internalClients; },
     [](NatPolicyChange& c, const lumen::Policy& p) {
       c.internalClients = p.internalClients.text();
     }},
    {"internal-ports", "ports of hosts that they may lead to",
     [](const NatPolicy& p) { return p.internalPorts; },
     [](NatPolicyChange& c, const lumen::Policy& p) { c.internalPorts = p.internalPorts.text(); }},
    {"router-ports", "ports that may be taken from this router's own programs",
     [](const NatPolicy& p) { return p.routerPorts; },
     [](NatPolicyChange& c, const lumen::Policy& p) { c.routerPorts = p.routerPorts.text(); }},
    {"max-rules", "how many may be open at once",
     [](const NatPolicy& p) { return std::to_string(p.maxRules); },
     [](NatPolicyChange& c, const lumen::Policy& p) { c.maxRules = p.maxRules; }},
    {"max-rules-per-client", "how many of them to each host",
     [](const NatPolicy& p) { return std::to_string(p.maxRulesPerClient); },
     [](NatPolicyChange& c, const lumen::Policy& p) { c.maxRulesPerClient = p.maxRulesPerClient; }},
}};

std::vector<std::string> policyNames() {
  std::vector<std::string> names;
  names.reserve(policyTable.size());
  for (const Limit& limit : policyTable) names.emplace_back(limit.name);
  return names;
}

void showPolicy(Session& session) {
  const NatPolicy policy = session.router().policy();
  if (session.json) {
    session.print({{"external-ports", policy.externalPorts},
                   {"internal-clients", policy.internalClients},
                   {"internal-ports", policy.internalPorts},
                   {"router-ports", policy.routerPorts},
                   {"max-rules", policy.maxRules},
                   {"max-rules-per-client", policy.maxRulesPerClient}});
    return;
  }
  Table table({"SETTING", "VALUE", "MEANING"});
  for (const Limit& limit : policyTable) {
    table.add({limit.name, limit.text(policy), limit.meaning});
  }
  session.print(table);
}

void setPolicy(Session& session, const std::vector<std::string>& texts) {
  const std::vector<Assignment> assignments = parseAssignments(texts, policyNames());
  lumen::Policy wanted;
  for (const Assignment& assignment : assignments) {
    // The platform would refuse it in the same words; wrong usage is found without it.
    const auto set = wanted.set(assignment.name, assignment.value);
    if (!set) throw WrongUsage(set.why());
  }
  NatPolicyChange change;
  for (const Assignment& assignment : assignments) {
    const auto* const limit =
        std::find_if(policyTable.begin(), policyTable.end(),
                     [&](const Limit& l) { return assignment.name == l.name; });
    limit->assign(change, wanted);
  }
  session.router().changePolicy(change);
  for (const Assignment& assignment : assignments) {
    session.done(assignment.name + ": " + assignment.value);
  }
}

void resetPolicy(Session& session) {
  NatPolicyChange change;
  change.reset = true;
  session.router().changePolicy(change);
  session.done("policy: reset to its file");
}

void reloadPolicy(Session& session) {
  NatPolicyChange change;
  change.reload = true;
  session.router().changePolicy(change);
  session.done("policy file: reloaded");
}

void addPolicy(CLI::App& group, Session& session) {
  CLI::App* policy = group.add_subcommand("policy", "show or set which ports may be opened");
  addExamples(*policy, {{"nat policy", "show it"},
                        {"nat policy set max-rules-per-client=20", "change a part of it"},
                        {"nat policy reset", "forget such changes"},
                        {"nat policy reload", "after a change of the policy file"}});
  runWhenBare(*policy, [&session] { showPolicy(session); });

  CLI::App* show = policy->add_subcommand("show", "show it");
  addExamples(*show,
              {{"nat policy show", "in a table"}, {"nat policy show --json", "for a program"}});
  show->callback([&session] { showPolicy(session); });

  CLI::App* set = policy->add_subcommand("set", "set some of it; the rest stays unchanged");
  addExamples(*set, {{"nat policy set external-ports=1024-65535", "no port below 1024"},
                     {"nat policy set internal-clients=192.168.88.0/24 max-rules=100",
                      "fewer, to one network"}});
  auto assignments = std::make_shared<std::vector<std::string>>();
  set->add_option("settings", *assignments, describeSettings(policyNames()))
      ->required()
      ->type_name("NAME=VALUE...");
  set->callback([&session, assignments] {
    session.changes = true;
    setPolicy(session, *assignments);
  });

  CLI::App* reset = policy->add_subcommand("reset", "back to what the policy file says");
  addExamples(*reset, {{"nat policy reset", "forget what was set by command"}});
  reset->callback([&session] {
    session.changes = true;
    resetPolicy(session);
  });

  CLI::App* reload = policy->add_subcommand(
      "reload", "read the policy file again; what is wrong in it is refused, and nothing changes");
  addExamples(*reload, {{"nat policy reload", "after a change of the file"}});
  reload->callback([&session] {
    session.changes = true;
    reloadPolicy(session);
  });
}

}  // namespace

void addNatCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("nat", "open ports, and the policy for them");
  addExamples(*group, {{"nat list", "the open ports"},
                       {"nat close 8080/tcp", "close one of them"},
                       {"nat log", "what happened to ports"},
                       {"nat policy", "which ports programs may open"}});
  runWhenBare(*group, [&session] { list(session); });
  CLI::App* listing = group->add_subcommand("list", "show them");
  addExamples(*listing, {{"nat list", "who opened them, how long ago, and how much they are used"},
                         {"nat list --json", "for a program"}});
  listing->callback([&session] { list(session); });

  CLI::App* closing = group->add_subcommand(
      "close",
      "close a port at once; unless it is of an IPv6 host, it stays listed until the program that "
      "opened it removes it");
  addExamples(*closing,
              {{"nat close 8080/tcp", "no host can connect through it any more"},
               {"nat close 8080/tcp 2001:db8::10", "the same for a port of an IPv6 host"}});
  auto port = std::make_shared<std::string>();
  closing->add_option("port", *port, "such as 8080/tcp")->required()->type_name("PORT/PROTOCOL");
  auto host = std::make_shared<std::string>();
  const CLI::Option* const hostGiven =
      closing->add_option("host", *host, "the IPv6 host whose port it is, such as 2001:db8::10")
          ->type_name("IPV6-HOST");
  closing->callback([&session, port, host, hostGiven] {
    session.changes = true;
    if (hostGiven->count() == 0) {
      close(session, *port);
    } else {
      closePinhole(session, *port, *host);
    }
  });

  addPortLogCommand(*group, session);
  addPolicy(*group, session);
}

}  // namespace lumenctl
