#include "upnp/CallbackUrl.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string_view>

#include "base/Log.h"
#include "base/Text.h"
#include "net/Address.h"
#include "net/Sockets.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/Resolver.h"

namespace {

/// The address of `host`; 0 when there is none.
uint32_t resolve(const std::string& host) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, {lm::service::resolver});
  request.insert_string(lm::resolver::key::hostName, host);
  const lm::message reply =
      lm::getLooper().exchangeCmd(request, lm::resolver::cmd::resolve, lm::exchangeLimit);
  if (lm::isError(reply)) logLine("resolving failed: ", lm::getError(reply));
  return reply.get_be32(lm::resolver::key::address);
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

}  // namespace

std::string firstCallback(const std::string& field) {
  if (!field.starts_with('<') || !field.ends_with('>')) return {};
  return field.substr(1, field.find('>') - 1);
}

bool parseCallbackUrl(std::string url, uint32_t& address, uint16_t& port, std::string& path) {
  constexpr std::string_view scheme = "http://";
  if (!url.starts_with(scheme) || std::ranges::any_of(url, isControl)) return false;
  url.erase(0, scheme.size());
  const size_t slash = url.find('/');
  if (slash == std::string::npos) return false;
  path = url.substr(slash);
  std::string host = url.substr(0, slash);

  uint32_t number = DEFAULT_HTTP_PORT;
  if (const size_t colon = host.find(':'); colon != std::string::npos) {
    number = strtouint(std::string_view(host).substr(colon + 1));
    host.resize(colon);
  }
  port = htons(static_cast<uint16_t>(number & 0xFFFF));
  address = strtoip(host);
  if (address != noAddress) return true;
  address = resolve(host);
  return address != 0;
}
