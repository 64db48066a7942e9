// The callbacks that event subscribers give, and what is asked of the resolver for them. An input
// is a URL or, if it begins with "<", a whole CALLBACK field.

#include <arpa/inet.h>

#include <algorithm>
#include <optional>
#include <string>

#include "base/Text.h"
#include "fuzz/Fuzz.h"
#include "net/Address.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/TestPlatform.h"
#include "upnp/CallbackUrl.h"

namespace {

using fuzz::require;

constexpr uint32_t noAddress = 0xFFFFFFFF;

/// A subscriber's router, whose resolver has an address, none or an error for a name, according to
/// its letters.
struct Router {
  Router() {
    platform.onRequest({lm::service::resolver}, 3, [](const lm::message& request) {
      uint32_t sum = 0;
      for (const char c : request.get_string(0x20000003)) {
        sum = sum * 31 + static_cast<unsigned char>(c);
      }
      if (sum % 4 == 0) return lm::errorMsg(lm::errorRefused, "no such host");
      lm::message reply;
      if (sum % 4 != 1) reply.insert_be32(0x08000004, sum);
      return reply;
    });
  }

  /// What the resolver was asked for since the last call.
  std::optional<std::string> takeAsked() {
    const auto asked = platform.sentTo({lm::service::resolver}, 3);
    platform.forgetSent();
    require(asked.size() <= 1, "the resolver is asked once");
    if (asked.empty()) return std::nullopt;
    return asked.front().get_string(0x20000003);
  }

  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
};

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

/// The port of a URL, host byte order.
uint16_t portOf(const std::string& authority) {
  const size_t colon = authority.find(':');
  if (colon == std::string::npos) return 80;
  return static_cast<uint16_t>(strtouint(std::string_view(authority).substr(colon + 1)));
}

void checkField(const std::string& field, const std::string& url) {
  require(url.find('>') == std::string::npos, "a URL ends at the first bracket");
  require(url.empty() || (field.starts_with("<" + url + ">") && field.ends_with('>')),
          "a URL is between brackets");
}

void checkUrl(Router& router, const std::string& url) {
  uint32_t address = 0;
  uint16_t port = 0;
  std::string path;
  const bool taken = parseCallbackUrl(url, address, port, path);
  const auto asked = router.takeAsked();

  const size_t slash = url.starts_with("http://") ? url.find('/', 7) : std::string::npos;
  if (slash == std::string::npos || std::ranges::any_of(url, isControl)) {
    require(!taken && !asked, "what is no URL is refused at once");
    return;
  }
  const std::string authority = url.substr(7, slash - 7);
  const std::string host = authority.substr(0, authority.find(':'));
  require(asked.has_value() == (inet_addr(host.c_str()) == noAddress), "names are resolved");
  require(!asked || *asked == host, "the host is resolved");
  if (!taken) return;

  require(address != 0 || !asked, "0 from the resolver is a failure");
  require(path == url.substr(slash), "the path is what follows the authority");
  require(ntohs(port) == portOf(authority), "the port is what follows the colon");
  if (address == noAddress) return;
  const std::string plain = "http://" + iptostr(address) + ":" + uinttostr(ntohs(port)) + path;
  uint32_t plainAddress = 0;
  uint16_t plainPort = 0;
  std::string plainPath;
  require(parseCallbackUrl(plain, plainAddress, plainPort, plainPath), "its plain form is taken");
  require(plainAddress == address && plainPort == port && plainPath == path,
          "its plain form means the same");
  require(!router.takeAsked(), "an address is not resolved");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Router router;
  const std::string input(fuzz::text(data, size));
  if (!input.starts_with('<')) {
    checkUrl(router, input);
    return 0;
  }
  const std::string url = firstCallback(input);
  checkField(input, url);
  checkUrl(router, url);
  return 0;
}
