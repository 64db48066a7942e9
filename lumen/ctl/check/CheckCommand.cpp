#include <CLI/App.hpp>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/check/Checks.h"
#include "lumen/ctl/check/Observer.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

void print(Session& session, const Findings& findings, const std::vector<std::string>& unchecked) {
  std::ostream& out = session.out();
  size_t number = 0;
  for (const Finding& finding : findings) {
    const std::string counter = std::to_string(++number) + ". ";
    const std::string indent(counter.size(), ' ');
    out << counter << printable(finding.what) << '\n'
        << indent << printable(finding.why) << '\n'
        << indent << "Fix it: " << printable(finding.remedy) << "\n\n";
  }
  if (findings.empty()) out << "Nothing is wrong.\n";
  for (const std::string& part : unchecked) out << "Not checked: " << part << ".\n";
}

void printJson(Session& session, const Findings& findings,
               const std::vector<std::string>& unchecked) {
  Json list = Json::array();
  for (const Finding& finding : findings) {
    list.push_back({{"id", finding.id},
                    {"what", finding.what},
                    {"why", finding.why},
                    {"remedy", finding.remedy}});
  }
  session.print({{"findings", list}, {"not_checked", unchecked}});
}

void check(Session& session) {
  const Observation seen = observe(session);
  const Findings findings = findProblems(seen);
  if (session.json) {
    printJson(session, findings, notChecked(seen));
  } else {
    print(session, findings, notChecked(seen));
  }
  session.status = findings.empty() ? 0 : 1;
}

}  // namespace

void addCheckCommand(CLI::App& upnp, Session& session) {
  CLI::App* command =
      upnp.add_subcommand("check", "show what keeps the gateway from working, and how to fix it");
  addExamples(*command, {{"upnp check", "what is wrong; as root it sees more"}},
              "Exit status: 0 nothing is wrong; 1 something is.");
  command->callback([&session] { check(session); });
}

}  // namespace lumenctl
