#include "ssdp/Advertiser.h"

#include <arpa/inet.h>

#include <cstring>

#include "base/Log.h"
#include "http/Server.h"
#include "net/Sockets.h"
#include "ssdp/Datagram.h"

HTTPMessage advert(uint32_t address, const std::string& target, const std::string& usn,
                   bool byebye) {
  HTTPMessage message;
  message.startLine = "NOTIFY * HTTP/1.1";
  message.addField("HOST", ssdpHost());
  if (!byebye) {
    addMaxAge(message);
    addLocation(message, address);
  }
  message.addField("NT", target);
  message.addField("NTS", byebye ? "ssdp:byebye" : "ssdp:alive");
  if (!byebye) message.addField("SERVER", SERVER_STRING);
  message.addField("USN", usn);
  return message;
}

void sendAdverts(int discoverySocket, uint32_t address, const SearchTargets& targets, bool byebye) {
  logLine("sendAdverts");
  sockaddr_in group = {};
  group.sin_family = AF_INET;
  group.sin_port = htons(SSDP_PORT);
  group.sin_addr.s_addr = inet_addr(SSDP_IP);
  for (const auto& [target, usn] : targets) {
    const int error = sendDatagram(discoverySocket, advert(address, target, usn, byebye), group);
    if (error != 0) logLine("advert sendto failed: ", strerror(error));
  }
}
