// Searches and requests from the LAN, and what answers them.

#include <cstdlib>

#include "base/Log.h"
#include "base/Text.h"
#include "core/Gateway.h"
#include "http/Server.h"
#include "net/Address.h"
#include "ssdp/SearchResponder.h"

void Gateway::handleSearch(int socket) {
  const std::optional<SearchRequest> request = receiveSearch(socket);
  if (!request) return;
  const Device& device = findDevice(socket);
  answerSearch(*request, device.interfaceName(), device.address, searchTargets);
}

const Device& Gateway::findDevice(int socket) const {
  for (const auto& [id, device] : devices) {
    if (device->discoverySocket.get() == socket) return *device;
  }
  logLine("findDevice fatal error");
  std::exit(EXIT_FAILURE);
}

std::shared_ptr<ServedInterface> Gateway::findListener(int listenFd) {
  for (const auto& [id, device] : devices) {
    if (device->listenSocket.get() == listenFd) return device;
  }
  return nullptr;
}

HTTPMessage Gateway::handleHttpRequest(const ServedInterface& device, const HTTPMessage& request,
                                       const std::string& method, const std::string& url) {
  if (method == "GET") {
    return url == DESCRIPTION_URL ? describe(device, request) : httpStore.get(request, "");
  }
  const bool control = method == "POST";
  if (!control && method != "SUBSCRIBE" && method != "UNSUBSCRIBE") {
    logLine("what is this: '", method, "'");
    return HTTPMessage(HTTP_NOT_IMPLEMENTED);
  }

  const auto& byUrl = control ? controlServices : eventServices;
  const auto found = byUrl.find(url);
  if (found == byUrl.end()) return HTTPMessage(HTTP_NOT_FOUND);

  // Accepting host names would let a web page's script reach the router by DNS rebinding.
  const std::string host = request.getField("HOST");
  const std::string address = iptostr(device.ipAddress());
  if (host != address && host != address + ":" + uinttostr(HTTP_PORT)) {
    logLine(method, ": host mismatch '", host, "'");
    return HTTPMessage(HTTP_BAD_REQUEST);
  }
  Service& service = *found->second;
  if (control) return service.post(request);
  return method == "SUBSCRIBE" ? service.subscribe(request) : service.unsubscribe(request);
}

HTTPMessage Gateway::describe(const ServedInterface& device, const HTTPMessage& request) {
  const uint32_t address = device.ipAddress();
  if (description_.empty() || address != describedAt_) {
    descr.presentationURL = "http://" + iptostr(address) + "/";
    XMLNode root = getDescription();
    root.addSubNode("URLBase", serverUrl(address));
    description_ = root.getXML();
    describedAt_ = address;
  }
  return httpStore.get(request, description_);
}
