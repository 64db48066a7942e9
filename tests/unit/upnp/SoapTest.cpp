#include <gtest/gtest.h>

#include <string>

#include "http/Server.h"
#include "upnp/Soap.h"
#include "upnp/SoapRequest.h"

namespace {

// Also proves [soap-prefix].
TEST(Soap, LocalNameIsWhatFollowsTheLastColon) {
  EXPECT_EQ(localName("s:Body"), "Body");
  EXPECT_EQ(localName("Body"), "Body");
  EXPECT_EQ(localName("a:b:Body"), "Body");
  EXPECT_EQ(localName(":Body"), "Body");
  EXPECT_EQ(localName("Body:"), "");
  EXPECT_EQ(localName(""), "");
}

// Promise: A SOAP reply has the fields `CONTENT-LENGTH`, `CONTENT-TYPE: text/xml; charset="utf-8"`,
// `DATE`, `EXT` (empty) and `SERVER`, in this order.
// Promise: CONTENT-LENGTH is the length of the whole envelope, in faults too.
// Promise: The body of a SOAP reply is an `s:Envelope` with
// `xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"` and
// `s:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"` around one `s:Body`, without an XML
// declaration.
TEST(Soap, ResponseIsAnEnvelopeWithoutAnXmlDeclaration) {
  XMLNode element("u:SwitchResponse");
  element.addProperty("xmlns:u", "urn:schemas-example:service:Lamp:1");
  element.addSubNode("NewState", "On");
  EXPECT_EQ(bytesOf(soapResponse(HTTP_OK, element)),
            wholeReply("200 OK",
                       soapBody("    <u:SwitchResponse"
                                " xmlns:u=\"urn:schemas-example:service:Lamp:1\">\r\n"
                                "      <NewState>On</NewState>\r\n"
                                "    </u:SwitchResponse>\r\n"),
                       SERVER_STRING));
}

// Promise: DATE is the time of the reply.
TEST(Soap, ResponseHasItsDate) {
  const HTTPMessage reply = soapResponse(HTTP_OK, XMLNode("x"));
  const std::string date = reply.getField("DATE");
  EXPECT_EQ(date.size(), std::string("Fri, 02 Jan 1970 00:00:00 GMT").size()) << date;
  EXPECT_GT(date.substr(12, 4), "2020");
}

// Promise [fault]: A fault is a reply 500 with `s:Fault`: `faultCode` `s:Client`, `faultString`
// `UPnPError`, in this mixed case, then `detail` with a `UPnPError` in the namespace
// `urn:schemas-upnp-org:control-1-0` that holds `errorCode` and `errorDescription`.
TEST(Soap, FaultHasCodeAndDescription) {
  EXPECT_EQ(bytesOf(soapFault(UPNP_CONFLICT_IN_MAPPING_ENTRY)),
            wholeReply("500 Internal Server Error", faultBody(718, "ConflictInMappingEntry"),
                       SERVER_STRING));
}

TEST(Soap, FaultOfACodeWithoutTextHasAnEmptyDescription) {
  EXPECT_EQ(bytesOf(soapFault(static_cast<UPNPStatus>(899))),
            wholeReply("500 Internal Server Error", faultBody(899, ""), SERVER_STRING));
}

}  // namespace
