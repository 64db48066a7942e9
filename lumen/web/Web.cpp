#include "lumen/web/Web.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "lumen/ctl/status/StatusJson.h"
#include "lumen/ctl/text/JsonText.h"
#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Time.h"
#include "lumen/web/HostCheck.h"
#include "lumen/web/Page.h"
#include "lumen/web/Render.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/System.h"
#include "platform/wire/Web.h"

namespace lumen::web {

namespace {

constexpr uint32_t leaveDelay = 1000;  // milliseconds
constexpr uint32_t settingsRecord = 0;
constexpr std::chrono::seconds keptFor(1);
constexpr std::chrono::seconds trafficPeriod(2);
constexpr std::chrono::seconds idleTrafficPeriod(5);  // while no browser looks
constexpr std::chrono::seconds lifePeriod(10);
constexpr uint32_t ticksPerCount = 3;
constexpr uint32_t portsPerPortion = 64;
constexpr uint32_t firstFreePort = 1024;
constexpr size_t mostNames = 16;

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> found;
  size_t begin = text.find_first_not_of(' ');
  while (begin != std::string::npos) {
    const size_t end = std::min(text.find(' ', begin), text.size());
    found.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(' ', end);
  }
  return found;
}

std::string lowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

/// Takes the settings that `from` has. Returns what is wrong with them.
std::string take(const lm::message& from, Web::Settings& settings) {
  settings.enabled = from.get_bool(lm::web::key::enabled, settings.enabled);
  const uint32_t port = from.get_u32(lm::web::key::port, settings.port);
  if (port == 0 || port > UINT16_MAX) return "port must be from 1 to 65535";
  settings.port = static_cast<uint16_t>(port);
  if (from.fields().find(lm::web::key::names) == nullptr) return {};
  settings.names.clear();
  for (const std::string& name : words(from.get_string(lm::web::key::names))) {
    if (!isHostName(name)) return "a name is no host name";
    if (settings.names.size() == mostNames) return "more than 16 names";
    settings.names.insert(lowerCase(name));
  }
  return {};
}

lm::message written(const Web::Settings& settings) {
  std::string names;
  for (const std::string& name : settings.names) names += (names.empty() ? "" : " ") + name;
  lm::message m;
  m.insert_bool(lm::web::key::enabled, settings.enabled);
  m.insert_u32(lm::web::key::port, settings.port);
  m.insert_string(lm::web::key::names, names);
  return m;
}

std::string listOf(const std::vector<std::string>& elements) {
  lumenctl::JsonList list;
  for (const std::string& element : elements) list.addJson(element);
  return list.text();
}

}  // namespace

Web::Web(std::string store, const lm::Clock& clock)
    : clock_(clock),
      store_(std::move(store), settingsRecord + 1),
      names_(clock),
      view_(*this, *this, clock),
      streams_(*this),
      server_(*this, clock),
      listeners_(server_) {
  if (const auto saved = store_.get(settingsRecord)) (void)take(*saved, settings_);
}

Web::~Web() { stop(); }

void Web::init(bool bindsLowPorts) {
  bindsLowPorts_ = bindsLowPorts;
  if (settings_.enabled) {
    start();
  } else {
    lm::getLooper().setupLeave(leaveDelay);
  }
}

void Web::start() {
  if (std::exchange(started_, true)) return;
  if (!server_.open()) return;
  view_.open();
  stateChanged();
  sampleTraffic();
}

void Web::stop() {
  if (!std::exchange(started_, false)) return;
  listeners_.listenAt({});
  traffic_.stop();
  life_.stop();
  run_.stop();
  streams_.endAll();
  server_.run();
  server_.close();
  view_.close();
  kept_.clear();
}

lm::message Web::cmdGet(const lm::message& /*request*/) {
  lm::message reply = written(settings_);
  reply.insert_string(lm::web::key::served, listeners_.served());
  reply.insert_string(lm::web::key::problem, listeners_.problem());
  return reply;
}

lm::message Web::cmdSet(const lm::message& request) {
  Settings changed = settings_;
  if (const std::string wrong = take(request, changed); !wrong.empty()) return lm::refusal(wrong);
  if (!store_.set(settingsRecord, written(changed))) {
    return lm::refusal("the settings could not be stored");
  }
  settings_ = changed;
  // A program that has given up its capability gets it back by another life, which the next request
  // begins.
  const bool needsAnotherLife =
      settings_.enabled && settings_.port < firstFreePort && !bindsLowPorts_;
  if (!settings_.enabled || needsAnotherLife) {
    stop();
    lm::getLooper().setupLeave(needsAnotherLife ? 1 : leaveDelay);
    return {};
  }
  lm::getLooper().setupLeave(0);
  start();
  listen();
  return {};
}

lm::message Web::cmdUnknown(const lm::message& request, uint32_t command) {
  if (request.has_array(lm::key::destination)) return Handler::cmdUnknown(request, command);
  view_.notified(request);
  return {};
}

void Web::stateChanged() {
  if (!started_) return;
  ownAddresses_.clear();
  for (const lumenctl::UsedInterface& used : view_.picture().interfaces) {
    ownAddresses_.insert(used.addresses.begin(), used.addresses.end());
  }
  listen();
  std::string state = stateJson(view_.picture());
  if (std::exchange(lastState_, state) != state) send(event("state", state));
}

void Web::listen() {
  std::vector<Listeners::Place> places;
  for (const lumenctl::UsedInterface& used : view_.picture().interfaces) {
    if (used.use.role != lumenctl::Role::internal || used.interface.isAway()) continue;
    for (const Ipv4Address& address : used.addresses) {
      places.push_back({used.interface.name, used.interface.index, {address, settings_.port}});
    }
  }
  listeners_.listenAt(std::move(places));
}

void Web::portChanged(const lumenctl::NatRule& rule) {
  names_.refresh();
  send(event("ports", "[" + portJson(rule, names_) + "]"));
}

void Web::portClosed(uint32_t id) {
  send(event("closed", lumenctl::JsonObject().add("id", id).text()));
}

void Web::pinholeChanged(const lumenctl::Pinhole& pinhole) {
  send(event("pinholes", "[" + pinholeJson(pinhole) + "]"));
}

void Web::pinholeClosed(uint32_t id) {
  send(event("pinhole-closed", lumenctl::JsonObject().add("id", id).text()));
}

void Web::happened(const Happening& happening) {
  send(event("happened", "[" + happeningJson(happening) + "]"));
}

bool Web::isOwn(std::string_view hostHeader) const {
  return isOwnHost(hostHeader, ownAddresses_, settings_.names);
}

MHD_Result Web::answer(const HttpServer::Request& request) {
  if (request.path == "/") {
    return keep(request, "text/html; charset=utf-8", [this] {
      view_.refreshPorts();
      names_.refresh();
      return pageOf(page::html, view_.picture(), names_);
    });
  }
  if (request.path == "/style.css") {
    return keep(request, "text/css; charset=utf-8", [] { return std::string(page::style); });
  }
  if (request.path == "/script.js") {
    return keep(request, "text/javascript; charset=utf-8",
                [] { return std::string(page::script); });
  }
  if (request.path == "/status.json") {
    return keep(request, "application/json", [this] {
      view_.refreshPorts();
      const Picture& picture = view_.picture();
      return lumenctl::statusJson(picture.gateway, picture.interfaces, picture.ruleList(),
                                  picture.refusedPorts, picture.pinholeList()) +
             "\n";
    });
  }
  if (request.path == "/metrics") {
    return keep(request, "text/plain; version=0.0.4; charset=utf-8", [this] {
      view_.refreshPorts();
      (void)view_.refreshTraffic();
      view_.readServices();
      return metricsOf(view_.picture(), lm::getUptime(), streams_.size());
    });
  }
  if (request.path == "/events") return stream(request);
  return refuse(request.connection, MHD_HTTP_NOT_FOUND, "There is no such page.");
}

MHD_Result Web::keep(const HttpServer::Request& request, const char* type,
                     const std::function<std::string()>& make) {
  Kept& kept = kept_[std::string(request.path)];
  if (!kept.response || clock_.now() - kept.madeAt >= keptFor) {
    kept = {makeResponse(make(), type), clock_.now()};
  }
  if (!kept.response) return MHD_NO;
  return MHD_queue_response(request.connection, MHD_HTTP_OK, kept.response.get());
}

MHD_Result Web::stream(const HttpServer::Request& request) {
  if (!request.wantsBody) {
    const Response empty = makeResponse("", "text/event-stream");
    return empty ? MHD_queue_response(request.connection, MHD_HTTP_OK, empty.get()) : MHD_NO;
  }
  if (!streams_.admits(request.host)) {
    return refuse(request.connection, MHD_HTTP_SERVICE_UNAVAILABLE, "Too many streams of events.");
  }
  server_.streams(request.fd);
  if (streams_.size() == 0) traffic_.start<&Web::sampleTraffic>(*this, 0);
  if (!life_.pending()) life_.start<&Web::showLife>(*this, timerDelay(lifePeriod));
  return streams_.open(request.connection, request.host);
}

std::string Web::beginning() {
  view_.refreshPorts();
  names_.refresh();
  lastState_ = stateJson(view_.picture());
  std::vector<std::string> happenings;
  for (const Happening& one : view_.picture().happenings) happenings.push_back(happeningJson(one));
  std::vector<std::string> samples;
  for (const Sample& one : view_.picture().samples) samples.push_back(sampleJson(one));
  return "retry: 3000\n" + event("begin", "{}") + event("state", lastState_) +
         event("happened", listOf(happenings)) + event("traffic", listOf(samples));
}

std::string Web::portion(EventStreams::Cursor& cursor) {
  const auto next = [](const char* name, const auto& all, uint32_t& last, const auto& json) {
    std::vector<std::string> some;
    for (auto it = all.upper_bound(last); it != all.end() && some.size() < portsPerPortion; ++it) {
      some.push_back(json(it->second));
      last = it->first;
    }
    return some.empty() ? std::string() : event(name, listOf(some));
  };
  const Picture& picture = view_.picture();
  const auto portText = [this](const lumenctl::NatRule& rule) { return portJson(rule, names_); };
  const std::string ports = next("ports", picture.rules, cursor.port, portText);
  if (!ports.empty()) return ports;
  return next("pinholes", picture.pinholes, cursor.pinhole, pinholeJson);
}

std::string Web::ending() { return event("complete", "{}"); }

void Web::send(const std::string& event) {
  if (streams_.size() == 0) return;
  streams_.send(event);
  // Not from inside of libmicrohttpd, which may have called.
  if (!run_.pending()) run_.start<&HttpServer::run>(server_, 0);
}

// Goes on while no browser looks, so that the next one shows the last ten minutes.
void Web::sampleTraffic() {
  std::vector<std::string> samples;
  for (const Sample& one : view_.refreshTraffic()) samples.push_back(sampleJson(one));
  if (streams_.size() == 0) {
    traffic_.start<&Web::sampleTraffic>(*this, timerDelay(idleTrafficPeriod));
    return;
  }
  if (!samples.empty()) send(event("traffic", listOf(samples)));
  // Costs a look at all connections of the router.
  if (++trafficTicks_ % ticksPerCount == 0) view_.refreshPorts();
  traffic_.start<&Web::sampleTraffic>(*this, timerDelay(trafficPeriod));
}

// What is sent to a browser that has gone shows that it has.
void Web::showLife() {
  if (streams_.size() == 0) return;
  send(":\n\n");
  life_.start<&Web::showLife>(*this, timerDelay(lifePeriod));
}

}  // namespace lumen::web
