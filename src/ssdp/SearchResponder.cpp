#include "ssdp/SearchResponder.h"

#include <sys/socket.h>

#include <array>

#include "base/Log.h"
#include "http/Server.h"
#include "net/Sockets.h"
#include "platform/Fd.h"
#include "ssdp/Datagram.h"

std::optional<std::string> parseSearch(std::string_view datagram) {
  const HTTPMessage message(datagram);
  if (message.startLine != "M-SEARCH * HTTP/1.1") return std::nullopt;
  if (message.getField("HOST") != ssdpHost()) return std::nullopt;
  if (message.getField("MAN") != "\"ssdp:discover\"") return std::nullopt;
  if (!message.hasField("MX")) return std::nullopt;
  if (!message.hasField("ST")) return std::nullopt;
  return message.getField("ST");
}

std::pair<SearchTargets::const_iterator, SearchTargets::const_iterator> findTargets(
    const SearchTargets& targets, const std::string& target) {
  if (target == "ssdp:all") return {targets.begin(), targets.end()};
  return targets.equal_range(target);
}

HTTPMessage searchReply(uint32_t address, const std::string& target, const std::string& usn) {
  HTTPMessage reply(HTTP_OK);
  addMaxAge(reply);
  reply.addField("EXT", "");
  addLocation(reply, address);
  reply.addField("SERVER", SERVER_STRING);
  reply.addField("ST", target);
  reply.addField("USN", usn);
  return reply;
}

std::optional<SearchRequest> receiveSearch(int discoverySocket) {
  std::array<char, BUFLEN> bytes;
  sockaddr_in sender = {};
  socklen_t length = sizeof sender;
  const ssize_t size = recvfrom(discoverySocket, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                reinterpret_cast<sockaddr*>(&sender), &length);
  if (size <= 0) {
    logLine("search recvfrom failed");
    return std::nullopt;
  }
  auto target = parseSearch({bytes.data(), static_cast<size_t>(size)});
  if (!target) return std::nullopt;
  return SearchRequest{std::move(*target), sender};
}

void answerSearch(const SearchRequest& request, const std::string& ifname, uint32_t address,
                  const SearchTargets& targets) {
  const lm::Fd socket(makeUdpSocket(ifname));
  const auto [first, last] = findTargets(targets, request.target);
  for (auto entry = first; entry != last; ++entry) {
    const auto& [target, usn] = *entry;
    if (sendDatagram(socket.get(), searchReply(address, target, usn), request.sender) != 0) {
      logLine("search sendto failed");
    }
  }
}
