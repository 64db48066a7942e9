#include "upnp/Soap.h"

#include <string>
#include <utility>

#include "base/Text.h"
#include "http/Server.h"

std::string_view localName(std::string_view name) {
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

HTTPMessage soapResponse(HTTPStatus status, XMLNode element) {
  XMLNode body("s:Body");
  body.addSubNode(std::move(element));
  XMLNode envelope("s:Envelope");
  envelope.addProperty("xmlns:s", "http://schemas.xmlsoap.org/soap/envelope/");
  envelope.addProperty("s:encodingStyle", std::string(soapEncoding));
  envelope.addSubNode(std::move(body));

  HTTPMessage reply(status);
  reply.body = envelope.get();
  reply.addField("CONTENT-LENGTH", uinttostr(static_cast<uint32_t>(reply.body.size())));
  reply.addField("CONTENT-TYPE", "text/xml; charset=\"utf-8\"");
  reply.addDate(0);
  reply.addField("EXT", "");
  reply.addField("SERVER", SERVER_STRING);
  return reply;
}

HTTPMessage soapFault(UPNPStatus status) {
  XMLNode error("UPnPError");
  error.addProperty("xmlns", std::string(controlNamespace));
  error.addSubNode("errorCode", inttostr(status));
  error.addSubNode("errorDescription", upnpStatusText(status));
  XMLNode detail("detail");
  detail.addSubNode(std::move(error));

  XMLNode fault("s:Fault");
  // Control points of this gateway expect these two names in mixed case.
  fault.addSubNode("faultCode", "s:Client");
  fault.addSubNode("faultString", "UPnPError");
  fault.addSubNode(std::move(detail));
  return soapResponse(HTTP_INTERNAL_SERVER_ERROR, std::move(fault));
}
