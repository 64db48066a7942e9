#include <CLI/App.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/router/Ports.h"
#include "lumen/ctl/status/Status.h"
#include "lumen/ctl/status/StatusPicture.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr std::chrono::seconds watchPeriod{1};
constexpr std::chrono::seconds gatewayLimit{2};  // soon enough to see that it hangs

void show(Session& session, const Status& status) {
  std::ostream& out = session.out();
  const StateWord gateway = wordFor(status.gateway);
  out << "Gateway: " << session.coloured(gateway.text, gateway.colour);
  if (!status.detail.empty()) out << " (" << printable(status.detail) << ')';
  out << '\n';
  if (status.webPage) out << "Status page: " << printable(webPageText(*status.webPage)) << '\n';
  out << '\n';
  Table interfaces({"INTERFACE", "ROLE", "STATE", "ADDRESS"});
  for (const UsedInterface& used : status.interfaces) {
    interfaces.add({used.interface.name, roleText(used), wordFor(used.interface.state()),
                    joined(textsOf(used.addresses))});
  }
  if (interfaces.empty()) out << noInterfaceText << '\n';
  session.print(interfaces);
  out << '\n';
  if (status.rules.empty()) out << noPortText << '\n';
  session.print(portsAsTable(status.rules));
  if (!status.pinholes.empty()) out << '\n';
  session.print(pinholesAsTable(status.pinholes));
  if (!status.refusals.empty()) out << '\n';
  for (const PortEvent& refusal : status.refusals) out << refusalText(refusal) << '\n';
}

void addTraffic(Router& router, const Status& status, std::map<uint32_t, Traffic>& traffic) {
  for (const UsedInterface& used : status.interfaces) {
    const uint32_t id = used.interface.id;
    try {
      traffic[id].add(router.counters(id), std::chrono::steady_clock::now());
    } catch (const Refused&) {  // it has gone since
      traffic.erase(id);
    }
  }
}

void watch(Session& session, Screen& screen) {
  session.router().waitForGateway(gatewayLimit);
  std::map<uint32_t, Traffic> traffic;
  Screen::Event event = Screen::Event::timeOver;
  while (event != Screen::Event::end) {
    const Status status(session.router(), session.machine());
    addTraffic(session.router(), status, traffic);
    do {
      screen.draw(picture(status, traffic,
                          {.size = screen.size(),
                           .colours = session.machine().showsColours(),
                           .utf8 = screen.showsUtf8()}));
      event = screen.wait(watchPeriod);
    } while (event == Screen::Event::resized);
  }
}

/// Where there is no screen.
void repeat(Session& session) {
  while (true) {
    const Status status(session.router(), session.machine());
    if (session.json) {
      session.printLine(status.json());
    } else {
      show(session, status);
      session.out() << '\n' << std::flush;
    }
    if (!session.out()) throw Refused(outputFailed);
    if (!session.machine().pause(watchPeriod)) return;
  }
}

void run(Session& session, bool again) {
  if (again) {
    // Fails before the screen is switched when lumend does not answer.
    static_cast<void>(session.router());
    const std::unique_ptr<Screen> screen = session.json ? nullptr : session.machine().screen();
    if (screen) {
      watch(session, *screen);
    } else {
      repeat(session);
    }
    return;
  }
  const Status status(session.router(), session.machine());
  if (session.json) {
    session.print(status.json());
  } else {
    show(session, status);
  }
}

}  // namespace

void addStatusCommand(CLI::App& app, Session& session) {
  CLI::App* command =
      app.add_subcommand("status", "whether the gateway works, its interfaces, the open ports");
  addExamples(*command, {{"status", "on one screen"},
                         {"status --watch", "the same, live, with traffic"},
                         {"status --json", "for a program"}});
  auto again = std::make_shared<bool>(false);
  command->add_flag(
      "--watch", *again,
      "redraw it each second until q or Ctrl-C; without a terminal, print it each second");
  command->callback([&session, again] { run(session, *again); });
}

}  // namespace lumenctl
