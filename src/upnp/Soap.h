#pragma once

#include <string_view>

#include "http/HTTPMessage.h"
#include "upnp/UPNPStatus.h"
#include "xml/XMLNode.h"

/// The encodingStyle of every SOAP 1.1 envelope in UPnP.
inline constexpr std::string_view soapEncoding = "http://schemas.xmlsoap.org/soap/encoding/";

/// The namespace of QueryStateVariable and of faults (UPnP Device Architecture 1.0, section 3).
inline constexpr std::string_view controlNamespace = "urn:schemas-upnp-org:control-1-0";

/// The SOAPACTION of QueryStateVariable, without its quotes.
inline constexpr std::string_view queryAction =
    "urn:schemas-upnp-org:control-1-0#QueryStateVariable";

/// The part of a qualified XML name after its last colon, or all of it. A view into `name`.
[[nodiscard]] std::string_view localName(std::string_view name);

/// A reply that carries `element` in a SOAP envelope.
[[nodiscard]] HTTPMessage soapResponse(HTTPStatus status, XMLNode element);

/// The reply 500 with the reason why a request was not carried out.
[[nodiscard]] HTTPMessage soapFault(UPNPStatus status);
