#include "ssdp/Datagram.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

#include "base/Text.h"
#include "http/Server.h"
#include "net/Sockets.h"
#include "ssdp/Advertiser.h"

std::string ssdpHost() { return SSDP_IP + (":" + uinttostr(SSDP_PORT)); }

void addMaxAge(HTTPMessage& message) {
  message.addField("CACHE-CONTROL", "max-age=" + uinttostr(MAX_AGE));
}

void addLocation(HTTPMessage& message, uint32_t address) {
  message.addField("LOCATION", serverUrl(address) + DESCRIPTION_URL);
}

int sendDatagram(int socket, const HTTPMessage& message, const sockaddr_in& to) {
  const std::string text = message.get();
  const ssize_t sent = sendto(socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&to), sizeof to);
  if (sent < 0) return errno;
  return static_cast<size_t>(sent) == text.size() ? 0 : EMSGSIZE;
}
