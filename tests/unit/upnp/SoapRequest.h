#pragma once

#include <string>

#include "http/HTTPMessage.h"

/// Fields of a SOAP request, each of which a test may spoil.
struct SoapRequest {
  std::string contentType = "text/xml; charset=\"utf-8\"";
  std::string soapAction = "\"urn:schemas-example:service:Lamp:1#Switch\"";
  std::string body;

  operator HTTPMessage() const {
    HTTPMessage request;
    request.startLine = "POST /control HTTP/1.1";
    request.addField("Content-Type", contentType);
    request.addField("SOAPAction", soapAction);
    request.body = body;
    request.complete = true;
    return request;
  }
};

/// An element with text.
inline std::string leaf(const std::string& name, const std::string& value) {
  return "<" + name + ">" + value + "</" + name + ">";
}

/// A SOAP envelope around `inner`.
inline std::string envelope(const std::string& inner) {
  return "<?xml version=\"1.0\"?>\r\n"
         "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\""
         " s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
         "<s:Body>" +
         inner + "</s:Body></s:Envelope>";
}

/// A request for an action; `arguments` are elements.
inline SoapRequest actionRequest(const std::string& serviceType, const std::string& action,
                                 const std::string& arguments = {}) {
  return {.soapAction = "\"" + serviceType + "#" + action + "\"",
          .body = envelope("<u:" + action + " xmlns:u=\"" + serviceType + "\">" + arguments +
                           "</u:" + action + ">")};
}

/// The standard request for the value of a variable.
inline SoapRequest variableRequest(const std::string& variable) {
  return {.soapAction = "\"urn:schemas-upnp-org:control-1-0#QueryStateVariable\"",
          .body = envelope("<u:QueryStateVariable xmlns:u=\"urn:schemas-upnp-org:control-1-0\">"
                           "<u:varName>" +
                           variable + "</u:varName></u:QueryStateVariable>")};
}

/// What a reply carries in its envelope, at its depth in there; `wholeReply` has the rest.
inline std::string soapBody(const std::string& element) {
  return "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\""
         " s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
         "  <s:Body>\r\n" +
         element +
         "  </s:Body>\r\n"
         "</s:Envelope>\r\n";
}

/// The body of the fault with this code.
inline std::string faultBody(int code, const std::string& description) {
  return soapBody(
      "    <s:Fault>\r\n"
      "      <faultCode>s:Client</faultCode>\r\n"
      "      <faultString>UPnPError</faultString>\r\n"
      "      <detail>\r\n"
      "        <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\r\n"
      "          <errorCode>" +
      std::to_string(code) +
      "</errorCode>\r\n"
      "          <errorDescription>" +
      description +
      "</errorDescription>\r\n"
      "        </UPnPError>\r\n"
      "      </detail>\r\n"
      "    </s:Fault>\r\n");
}

/// The bytes of a reply with this body, whose time is "DATE: now".
inline std::string wholeReply(const std::string& status, const std::string& body,
                              const std::string& server) {
  return "HTTP/1.1 " + status + "\r\nCONTENT-LENGTH: " + std::to_string(body.size()) +
         "\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nDATE: now\r\nEXT: \r\nSERVER: " +
         server + "\r\n\r\n" + body;
}

/// The bytes of a reply, with "now" for the time.
inline std::string bytesOf(HTTPMessage reply) {
  for (size_t i = 0; i < reply.fieldNames.size(); ++i) {
    if (reply.fieldNames[i] == "DATE") reply.fieldValues[i] = "now";
  }
  return reply.get();
}
