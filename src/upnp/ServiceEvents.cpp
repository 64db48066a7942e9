// The subscriptions of a service.

#include <netinet/in.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <utility>

#include "base/Log.h"
#include "base/Text.h"
#include "http/Server.h"
#include "net/Address.h"
#include "upnp/CallbackUrl.h"
#include "upnp/Event.h"
#include "upnp/Service.h"
#include "upnp/Subscription.h"

namespace {

HTTPMessage preconditionFailed() { return HTTPMessage(HTTP_PRECONDITION_FAILED); }

std::string newSid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[UUID_STR_LEN];
  uuid_unparse_lower(uuid, text);
  return std::string("uuid:") + text;
}

}  // namespace

HTTPMessage Service::subscribe(const HTTPMessage& request) {
  const uint32_t granted = grantedTime(request.getField("TIMEOUT"));
  // A request with both NT and SID creates a new subscription.
  return request.hasField("NT") ? newSubscription(request, granted)
                                : renewSubscription(request, granted);
}

HTTPMessage Service::newSubscription(const HTTPMessage& request, uint32_t granted) {
  if (request.getField("NT") != "upnp:event") return preconditionFailed();
  const std::string callback = firstCallback(request.getField("CALLBACK"));
  uint32_t address = 0;
  uint16_t port = 0;
  std::string path;
  if (!parseCallbackUrl(callback, address, port, path)) return preconditionFailed();
  logLine("callback addr: ", iptostr(address), ", port: ", ntohs(port), ", path: ", path);
  if (subscriptions.size() >= SUBSCRIPTION_LIMIT) return HTTPMessage(HTTP_INTERNAL_SERVER_ERROR);
  const bool known = std::ranges::any_of(
      subscriptions, [address](const auto& entry) { return entry.second->address == address; });
  if (known) return preconditionFailed();

  auto made = std::make_unique<Subscription>(*this, newSid());
  made->address = address;
  made->port = port;
  made->path = std::move(path);
  Subscription& subscription = *made;
  subscriptions[subscription.sid] = std::move(made);
  logLine("subscribe: ", name);
  sendInitialEvent(subscription);
  return confirm(subscription, granted);
}

HTTPMessage Service::renewSubscription(const HTTPMessage& request, uint32_t granted) {
  const auto found = subscriptions.find(request.getField("SID"));
  if (found == subscriptions.end()) return preconditionFailed();
  logLine("resubscribe: ", name);
  return confirm(*found->second, granted);
}

HTTPMessage Service::confirm(Subscription& subscription, uint32_t granted) {
  subscription.grant(granted);
  HTTPMessage reply(HTTP_OK);
  reply.addDate(0);
  reply.addField("SERVER", SERVER_STRING);
  reply.addField("SID", subscription.sid);
  reply.addField("TIMEOUT", "Second-" + uinttostr(granted));
  return reply;
}

HTTPMessage Service::unsubscribe(const HTTPMessage& request) {
  const std::string sid = request.getField("SID");
  if (!subscriptions.contains(sid)) return preconditionFailed();
  logLine("unsubscribe");
  removeSubscription(sid);
  return HTTPMessage(HTTP_OK);
}

void Service::expireSubscription(const std::string& sid) {
  logLine("subscription timeout: ", sid);
  removeSubscription(sid);
}

void Service::flushSubscriptions() {
  while (!subscriptions.empty()) removeSubscription(subscriptions.begin()->first);
}

void Service::removeSubscription(const std::string& sid) {
  const auto removed = subscriptions.extract(sid);  // `sid` may refer into it
  // Deliveries waiting for their turn end now.
  resumeEvents(sid);
}
