// Datagrams at the discovery socket, up to the replies.

#include <iterator>
#include <string>

#include "core/WANTree.h"
#include "description/UpnpRootDevice.h"
#include "fuzz/Fuzz.h"
#include "net/Address.h"
#include "ssdp/SearchResponder.h"

namespace {

using fuzz::require;

// What an Ethernet frame has room for behind the headers of IPv4 and UDP.
constexpr size_t unfragmented = 1500 - 20 - 8;

/// What a gateway with one external interface is found under.
SearchTargets gatewayTargets() {
  UpnpRootDevice root;
  root.descr.deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
  root.descr.UDN = "UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-4f1a";
  root.services.emplace_back("kestrava", "OSInfo:1", "OSInfo1", "osinfo");
  root.devices.push_back(WANTree("4f1a", 7).device());
  SearchTargets targets;
  root.getSearchTargets(targets);
  return targets;
}

std::string searchFor(const std::string& target) {
  return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n"
         "MX: 3\r\nST: " +
         target + "\r\n\r\n";
}

void checkReply(const HTTPMessage& reply, const std::string& target, const std::string& usn) {
  const std::string datagram = reply.get();
  require(datagram.size() <= unfragmented, "a reply fits in a frame");
  const HTTPMessage received(datagram);
  require(received.complete && received.startLine == "HTTP/1.1 200 OK", "a reply is whole");
  require(received.getField("ST") == target, "a reply tells the target that was found");
  require(received.getField("USN") == usn, "a reply tells the name that was found");
  require(received.getField("LOCATION") == "http://192.168.88.1:2828/gateway.xml",
          "a reply tells where the description is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const SearchTargets targets = gatewayTargets();
  static const uint32_t address = strtoip("192.168.88.1");

  const std::string_view datagram = fuzz::text(data, size);
  const auto wanted = parseSearch(datagram);
  if (!wanted) return 0;
  require(datagram.find("ssdp:discover") != std::string_view::npos, "only searches are answered");
  require(parseSearch(searchFor(*wanted)) == wanted, "a target is read as it was written");

  const auto [first, last] = findTargets(targets, *wanted);
  const bool all = *wanted == "ssdp:all";
  require(static_cast<size_t>(std::distance(first, last)) ==
              (all ? targets.size() : targets.count(*wanted)),
          "every target that was asked for is found");
  for (auto entry = first; entry != last; ++entry) {
    const auto& [target, usn] = *entry;
    require(all || target == *wanted, "nothing else is found");
    checkReply(searchReply(address, target, usn), target, usn);
  }
  return 0;
}
