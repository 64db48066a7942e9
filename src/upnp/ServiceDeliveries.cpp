// The deliveries of a service to its subscribers.

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Log.h"
#include "base/Text.h"
#include "net/Address.h"
#include "upnp/Event.h"
#include "upnp/Service.h"
#include "upnp/Subscription.h"
#include "xml/XMLNode.h"

namespace {

/// A connection to the callback that is being established. None, after a log line, when that fails
/// at once.
lm::Fd connectTo(const Subscription& subscription) {
  lm::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    logLine("tcp socket: ", strerror(errno));
    return {};
  }
  if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
    logLine("fcntl O_NONBLOCK: ", strerror(errno));
    return {};
  }
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = subscription.port;
  to.sin_addr.s_addr = subscription.address;
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 &&
      errno != EINPROGRESS) {
    logLine("tcp connect: ", strerror(errno));
    return {};
  }
  return fd;
}

void addProperty(XMLNode& set, const std::string& name, const std::string& value) {
  XMLNode property("e:property");
  property.addSubNode(name, value);
  set.subNodes.push_back(std::move(property));
  logLine("notify: ", name, " = '", value, "'");
}

/// The NOTIFY that carries `body` (UPnP Device Architecture 1.0, section 4.2.1). Takes the
/// subscription's next SEQ.
HTTPMessage makeNotify(Subscription& subscription, std::string body) {
  HTTPMessage notify;
  notify.startLine = "NOTIFY " + subscription.path + " HTTP/1.1";
  notify.addField("HOST",
                  iptostr(subscription.address) + ":" + uinttostr(ntohs(subscription.port)));
  notify.addField("CONTENT-TYPE", "text/xml");
  notify.addField("CONTENT-LENGTH", std::to_string(body.size()));
  notify.addField("NT", "upnp:event");
  notify.addField("NTS", "upnp:propchange");
  notify.addField("SID", subscription.sid);
  notify.addField("SEQ", uinttostr(subscription.takeSeq()));
  notify.body = std::move(body);
  return notify;
}

}  // namespace

void Service::sendInitialEvent(Subscription& subscription) {
  subscription.initialEvent = startDelivery(subscription, {++lastChange_, ""});
  if (subscription.initialEvent >= 0) subscription.delayInitialEvent();
}

void Service::sendEvent(Subscription& subscription, const std::string& variableName) {
  const Subscription::Change change{++lastChange_, variableName};
  if (subscription.pending.empty() && mayStart(subscription)) {
    startDelivery(subscription, change);
    return;
  }
  subscription.pending.push_back(change);
  if (subscription.pending.size() > Subscription::mostPending) {
    logLine("notify dropped: ", subscription.pending.front().variable);
    subscription.pending.pop_front();
    subscription.skipSeq();
  }
}

bool Service::mayStart(const Subscription& subscription) const {
  return subscription.underWay == 0 ||
         (subscription.underWay < Subscription::mostUnderWay && events.size() < SHARED_DELIVERIES);
}

int Service::startDelivery(Subscription& subscription, const Subscription::Change& change) {
  // Deliveries without a subscription are not counted by any.
  if (events.size() >= DELIVERY_LIMIT) dropOldestOrphan();
  lm::Fd connection = connectTo(subscription);
  const int fd = connection.get();
  if (fd < 0) return -1;
  events[fd] = std::make_unique<Event>(*this, std::move(connection), change.number,
                                       subscription.sid, change.variable);
  ++subscription.underWay;
  return fd;
}

void Service::startPending() {
  while (Subscription* const next = longestPending()) {
    const Subscription::Change change = next->pending.front();
    next->pending.pop_front();
    startDelivery(*next, change);
  }
}

Subscription* Service::longestPending() const {
  Subscription* found = nullptr;
  for (const auto& [sid, each] : subscriptions) {
    if (each->pending.empty() || !mayStart(*each)) continue;
    if (!found || each->pending.front().number < found->pending.front().number) found = each.get();
  }
  return found;
}

void Service::dropOldestOrphan() {
  Event* oldest = nullptr;
  for (const auto& [fd, event] : events) {
    if (subscriptions.contains(event->sid)) continue;
    if (!oldest || event->serial < oldest->serial) oldest = event.get();
  }
  if (oldest) oldest->timeout();
}

void Service::deliver(Event& event) {
  const auto found = subscriptions.find(event.sid);
  if (found == subscriptions.end()) {
    event.timeout();
    return;
  }
  Subscription& subscription = *found->second;
  const bool initial = subscription.initialEvent == event.socket.get();
  event.waiting = initial ? subscription.initialEventIsDelayed() : subscription.initialEvent >= 0;
  if (event.waiting) return;

  XMLNode set("e:propertyset");
  set.addProperty("xmlns:e", "urn:schemas-upnp-org:event-1-0");
  if (!addProperties(set, event.variable) ||
      !event.write(makeNotify(subscription, set.get()).get())) {
    event.timeout();
  } else if (initial) {
    initialEventEnded(subscription);
  }
}

bool Service::addProperties(XMLNode& set, const std::string& variableName) const {
  std::string value;
  if (variableName.empty()) {
    for (const auto& [each, variable] : variables) {
      if (variable.evented && variable.getValue(value)) addProperty(set, each, value);
    }
    return true;
  }
  const auto found = variables.find(variableName);
  if (found == variables.end()) {
    logLine("unknown variable");
    return false;
  }
  if (!found->second.getValue(value)) {
    logLine("variable has no value");
    return false;
  }
  addProperty(set, variableName, value);
  return true;
}

void Service::endEvent(const Event& event) {
  const int fd = event.socket.get();
  const auto ended = events.extract(fd);
  const auto found = subscriptions.find(ended.mapped()->sid);
  if (found != subscriptions.end()) {
    --found->second->underWay;
    if (found->second->initialEvent == fd) initialEventEnded(*found->second);
  }
  startPending();
}

void Service::initialEventEnded(Subscription& subscription) {
  subscription.endInitialEvent();
  resumeEvents(subscription.sid);
}

void Service::resumeEvents(const std::string& sid) {
  std::map<uint64_t, int> waiting;  // in the order in which they started
  for (const auto& [fd, event] : events) {
    if (event->waiting && event->sid == sid) waiting[event->serial] = fd;
  }
  for (const auto& [serial, fd] : waiting) {
    const auto found = events.find(fd);
    if (found == events.end() || found->second->serial != serial) continue;
    // The previous one may have been the initial event, whose end resumed all others.
    if (found->second->waiting) deliver(*found->second);
  }
}
