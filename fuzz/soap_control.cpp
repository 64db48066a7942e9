// XML documents and control requests in them, to a WANIPConnection. An input is one request or
// several, with lines "%%" between them; a request is its SOAPACTION on the first line, and the
// body.

#include <string>

#include "base/Text.h"
#include "fuzz/Fuzz.h"
#include "fuzz/NatTable.h"
#include "fuzz/XmlChecks.h"
#include "igd/WANIPConnection.h"
#include "net/Address.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/TestPlatform.h"
#include "xml/XMLParser.h"

namespace {

using fuzz::require;

constexpr std::string_view separator = "\n%%\n";

/// All but the service.
struct Router {
  Router() { platform.answer({20, 0}, lm::cmd::setObject, {}); }

  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
  fuzz::NatTable natTable{platform};
};

HTTPMessage controlRequest(std::string_view text) {
  HTTPMessage request;
  request.startLine = "POST /upnp/control/wanipconn-7 HTTP/1.1";
  request.addField("SOAPACTION", std::string(fuzz::takeUpTo(text, "\n")));
  request.addField("CONTENT-TYPE", "text/xml; charset=\"utf-8\"");
  request.body = text;
  request.complete = true;
  return request;
}

/// The number in the only element `name` of a fault that we wrote.
uint32_t numberIn(const std::string& body, const std::string& name) {
  const size_t start = body.find("<" + name + ">");
  require(start != std::string::npos, "a fault has a code");
  return strtouint(std::string_view(body).substr(start + name.size() + 2));
}

void checkReply(const HTTPMessage& reply) {
  const HTTPMessage received(reply.get());
  require(received.complete && received.body == reply.body, "a reply is one whole message");
  if (reply.startLine == "HTTP/1.1 400 Bad Request") {
    require(reply.fieldNames.empty() && reply.body.empty(), "a refusal is bare");
    return;
  }
  require(reply.getField("CONTENT-LENGTH") == std::to_string(reply.body.size()),
          "a reply tells its length");
  if (reply.startLine == "HTTP/1.1 200 OK") return;
  require(reply.startLine == "HTTP/1.1 500 Internal Server Error", "no other status is sent");
  require(XMLParser(reply.body).ok, "a fault is well-formed");
  const auto code = static_cast<UPNPStatus>(numberIn(reply.body, "errorCode"));
  require(!upnpStatusText(code).empty(), "a fault has a code that is defined");
}

void checkTable(const Router& router, const WANIPConnection& connection) {
  const size_t rules = router.natTable.rules().size();
  const uint32_t entries = strtouint(connection.getVar("PortMappingNumberOfEntries"));
  // The dummy is counted from the first change on.
  require(entries == rules + 1 || (entries == 0 && rules == 0),
          "there is a rule for each mapping that is counted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Router router;
  {
    WANIPConnection connection(7, strtoip("45.45.45.2"));
    std::string_view rest = fuzz::text(data, size);
    do {
      const HTTPMessage request = controlRequest(fuzz::takeUpTo(rest, separator));
      fuzz::checkDocument(XMLParser(request.body));
      checkReply(connection.post(request));
      checkTable(router, connection);
    } while (!rest.empty());
  }
  require(router.natTable.rules().empty(), "no rule outlives its connection");
  router.platform.forgetSent();
  return 0;
}
