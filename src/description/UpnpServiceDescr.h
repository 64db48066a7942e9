#pragma once

#include <string>

#include "xml/XMLNode.h"

/// What a description document says about one service.
struct UpnpServiceDescr {
  /// `domain` is that of the schema ("upnp-org"), `type` has its version ("OSInfo:1"), `id` is the
  /// short service id ("OSInfo1"), `stem` names the service's URLs ("osinfo").
  UpnpServiceDescr(const std::string& domain, const std::string& type, const std::string& id,
                   const std::string& stem);

  /// The "service" element.
  [[nodiscard]] XMLNode getDescription() const;

  std::string serviceType;
  std::string serviceId;
  std::string SCPDURL;
  std::string controlURL;
  std::string eventSubURL;
};
