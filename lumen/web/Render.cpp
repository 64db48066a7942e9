#include "lumen/web/Render.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>

#include "lumen/ctl/status/StatusJson.h"
#include "lumen/ctl/text/JsonText.h"
#include "lumen/ctl/text/Text.h"
#include "lumen/web/Markup.h"

namespace lumen::web {

namespace {

using lumenctl::Colour;
using lumenctl::GatewayState;
using lumenctl::JsonList;
using lumenctl::JsonObject;
using lumenctl::StateWord;

const char* className(Colour colour) {
  switch (colour) {
    case Colour::good:
      return "good";
    case Colour::warning:
      return "warning";
    case Colour::bad:
      return "bad";
    case Colour::none:
    case Colour::heading:
      break;
  }
  return "";
}

/// The addresses under which ports can be opened now.
std::vector<std::string> externalAddresses(const Picture& picture) {
  std::vector<std::string> texts;
  for (const lumenctl::UsedInterface& used : picture.interfaces) {
    const bool works = used.interface.state() == lumenctl::LinkState::running;
    if (used.use.role != lumenctl::Role::external || used.use.disabled || !works) continue;
    for (const Ipv4Address& address : used.addresses) texts.push_back(address.text());
  }
  return texts;
}

struct Sentence {
  std::string text;
  Colour colour;
};

Sentence sentenceOf(const Picture& picture) {
  const Colour colour = lumenctl::wordFor(picture.gateway).colour;
  switch (picture.gateway) {
    case GatewayState::on:
      break;
    case GatewayState::off:
      return {"The gateway is switched off.", colour};
    case GatewayState::starting:
      return {"The gateway is starting.", colour};
    case GatewayState::crashed:
      return {"The gateway has crashed and starts again by itself.", colour};
    case GatewayState::notInstalled:
      return {"The gateway is not installed.", colour};
    case GatewayState::notAnswering:
    case GatewayState::notReachable:
      return {"The gateway does not answer.", colour};
  }
  const std::vector<std::string> addresses = externalAddresses(picture);
  if (addresses.empty()) {
    return {"The gateway is on, but it has no external address.", Colour::bad};
  }
  return {"The gateway works under the external address " + lumenctl::joined(addresses) + ".",
          picture.findings.empty() ? colour : Colour::warning};
}

uint64_t number(Milliseconds time) {
  return static_cast<uint64_t>(std::max<int64_t>(0, time.time_since_epoch().count()));
}

/// "2024-02-29T23:59:58Z", which says the time without a script; with it, the reader's own.
std::string timeElement(Milliseconds time) {
  const auto seconds = static_cast<time_t>(number(time) / 1000);
  tm parts{};
  std::array<char, 32> text{};
  gmtime_r(&seconds, &parts);
  const std::string iso(text.data(),
                        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
  return "<time datetime=\"" + iso + "\">" + iso + "</time>";
}

std::string numberOrNull(const std::optional<uint64_t>& value) {
  return value ? std::to_string(*value) : "null";
}

std::string numberOrMark(const std::optional<uint64_t>& value) {
  return value ? std::to_string(*value) : "?";
}

std::string cell(const std::string& text, const std::string& classes = "") {
  return (classes.empty() ? "<td>" : "<td class=\"" + classes + "\">") + markup(text) + "</td>";
}

std::string stateMarkup(const Picture& picture) {
  const Sentence sentence = sentenceOf(picture);
  std::string text = "<p class=\"state " + std::string(className(sentence.colour)) + "\">" +
                     markup(sentence.text) + "</p><p>Since " + timeElement(picture.since) + "</p>";
  for (const lumenctl::Finding& finding : picture.findings) {
    text += "<div class=\"finding\"><p class=\"what\">" + markup(finding.what) + "</p><p>" +
            markup(finding.why) + "</p><p>Fix it: <code>" + markup(finding.remedy) +
            "</code></p></div>";
  }
  return text;
}

std::string interfaceRows(const Picture& picture) {
  std::string rows;
  for (const lumenctl::UsedInterface& used : picture.interfaces) {
    const StateWord state = lumenctl::wordFor(used.interface.state());
    rows += "<tr><th scope=\"row\">" + markup(used.interface.name) + "</th>" +
            cell(roleName(used.use.role) + (used.use.disabled ? ", not used" : "")) +
            cell(state.text, className(state.colour)) +
            cell(lumenctl::joined(lumenctl::textsOf(used.addresses))) + "</tr>";
  }
  return rows;
}

std::string fromCell(const std::string& networks) {
  return cell(networks.empty() ? "anywhere" : networks, "from");
}

std::string portRows(const Picture& picture, const HostNames& names) {
  std::vector<lumenctl::NatRule> rules = picture.ruleList();
  lumenctl::sortByPort(rules);
  std::string rows;
  for (const lumenctl::NatRule& rule : rules) {
    const StateWord state = lumenctl::wordFor(rule.state());
    rows += "<tr><th scope=\"row\" class=\"number\">" + std::to_string(rule.external.port) +
            "</th>" + cell(rule.protocolName()) + fromCell(rule.from) +
            cell(names.of(rule.client.address)) + cell(state.text, className(state.colour)) +
            cell(lumenctl::duration(rule.openFor), "time") +
            cell(rule.left ? lumenctl::duration(*rule.left) : "", "time lease") +
            cell(numberOrMark(rule.connections), "number") +
            cell(numberOrMark(rule.uses), "number") + cell(rule.owner) + "</tr>";
  }
  return rows;
}

/// The classes of a table of ports that hide the columns in which no port has anything to say.
std::string hiddenColumns(const Picture& picture) {
  bool from = false;
  bool lease = false;
  for (const auto& [id, rule] : picture.rules) {
    from = from || !rule.from.empty();
    lease = lease || rule.left;
  }
  return std::string(from ? "" : " no-from") + (lease ? "" : " no-lease");
}

std::string hiddenPinholeColumns(const Picture& picture) {
  const bool from = std::ranges::any_of(
      picture.pinholes, [](const auto& entry) { return !entry.second.from.empty(); });
  return from ? "" : " no-from";
}

std::string pinholeRows(const Picture& picture) {
  std::vector<lumenctl::Pinhole> pinholes = picture.pinholeList();
  lumenctl::sortByHost(pinholes);
  std::string rows;
  for (const lumenctl::Pinhole& pinhole : pinholes) {
    rows += "<tr><th scope=\"row\" class=\"number\">" + std::to_string(pinhole.port) + "</th>" +
            cell(pinhole.protocolName()) + fromCell(pinhole.from) + cell(pinhole.host) +
            cell(lumenctl::duration(pinhole.openFor), "time") +
            cell(lumenctl::duration(pinhole.left), "time") + cell(pinhole.owner) + "</tr>";
  }
  return rows;
}

std::string happeningItems(const Picture& picture) {
  std::string items;
  for (auto it = picture.happenings.rbegin(); it != picture.happenings.rend(); ++it) {
    items += "<li>" + timeElement(it->time) + markup(it->text) + "</li>";
  }
  return items;
}

}  // namespace

std::string stateJson(const Picture& picture) {
  const Sentence sentence = sentenceOf(picture);
  JsonList findings;
  for (const lumenctl::Finding& finding : picture.findings) {
    findings.addJson(JsonObject()
                         .add("id", finding.id)
                         .add("what", finding.what)
                         .add("why", finding.why)
                         .add("remedy", finding.remedy)
                         .text());
  }
  JsonList interfaces;
  for (const lumenctl::UsedInterface& used : picture.interfaces) {
    const StateWord state = lumenctl::wordFor(used.interface.state());
    interfaces.addJson(
        JsonObject()
            .add("name", used.interface.name)
            .add("role", roleName(used.use.role) + (used.use.disabled ? ", not used" : ""))
            .add("state", state.text)
            .add("colour", className(state.colour))
            .add("addresses", lumenctl::joined(lumenctl::textsOf(used.addresses)))
            .text());
  }
  return JsonObject()
      .add("sentence", sentence.text)
      .add("colour", className(sentence.colour))
      .add("since", number(picture.since))
      .addJson("findings", findings.text())
      .addJson("interfaces", interfaces.text())
      .text();
}

std::string portJson(const lumenctl::NatRule& rule, const HostNames& names) {
  const StateWord state = lumenctl::wordFor(rule.state());
  return JsonObject()
      .add("id", rule.id)
      .add("port", rule.external.port)
      .add("protocol", rule.protocolName())
      .add("host", names.of(rule.client.address))
      .add("state", state.text)
      .add("colour", className(state.colour))
      .add("seconds", rule.openFor.count())
      .addJson("connections", numberOrNull(rule.connections))
      .addJson("uses", numberOrNull(rule.uses))
      .add("owner", rule.owner)
      .add("from", rule.from)
      .addJson("left", rule.left ? std::to_string(rule.left->count()) : "null")
      .text();
}

std::string pinholeJson(const lumenctl::Pinhole& pinhole) {
  return JsonObject()
      .add("id", pinhole.id)
      .add("port", pinhole.port)
      .add("protocol", pinhole.protocolName())
      .add("host", pinhole.host)
      .add("seconds", pinhole.openFor.count())
      .add("left", pinhole.left.count())
      .add("owner", pinhole.owner)
      .add("from", pinhole.from)
      .text();
}

std::string happeningJson(const Happening& happening) {
  return JsonObject().add("time", number(happening.time)).add("text", happening.text).text();
}

std::string sampleJson(const Sample& sample) {
  return JsonObject()
      .add("time", number(sample.time))
      .add("interface", sample.interface)
      .add("down", sample.down)
      .add("up", sample.up)
      .text();
}

std::string event(std::string_view name, std::string_view data) {
  return "event: " + std::string(name) + "\ndata: " + std::string(data) + "\n\n";
}

std::string pageOf(std::string_view form, const Picture& picture, const HostNames& names) {
  const auto hiddenIf = [](bool hidden) { return std::string(hidden ? " hidden" : ""); };
  const bool none = picture.rules.empty() && picture.pinholes.empty();
  std::string page;
  while (true) {
    const size_t begin = form.find("{{");
    page += form.substr(0, begin);
    if (begin == std::string_view::npos) return page;
    const size_t end = form.find("}}", begin);
    const std::string_view mark = form.substr(begin + 2, end - begin - 2);
    if (mark == "state") page += stateMarkup(picture);
    if (mark == "interfaces") page += interfaceRows(picture);
    if (mark == "ports") page += portRows(picture, names);
    if (mark == "lately") page += happeningItems(picture);
    if (mark == "ports-columns") page += hiddenColumns(picture);
    if (mark == "ports-hidden") page += hiddenIf(picture.rules.empty());
    if (mark == "pinholes") page += pinholeRows(picture);
    if (mark == "pinholes-columns") page += hiddenPinholeColumns(picture);
    if (mark == "pinholes-hidden") page += hiddenIf(picture.pinholes.empty());
    if (mark == "no-port-hidden") page += hiddenIf(!none);
    if (mark == "nothing-hidden") page += hiddenIf(!picture.happenings.empty());
    form.remove_prefix(end + 2);
  }
}

}  // namespace lumen::web
