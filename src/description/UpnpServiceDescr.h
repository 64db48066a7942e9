#pragma once

#include <string>

#include "xml/XMLNode.h"

/// A service's part of a description document.
struct UpnpServiceDescr {
  /// `domain` is the schema's ("upnp-org"), `type` includes the version ("OSInfo:1"), `id` is the
  /// short service id ("OSInfo1"), and `stem` is the name in the service's URLs ("osinfo").
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
