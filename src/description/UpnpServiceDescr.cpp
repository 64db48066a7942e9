#include "description/UpnpServiceDescr.h"

UpnpServiceDescr::UpnpServiceDescr(const std::string& domain, const std::string& type,
                                   const std::string& id, const std::string& stem)
    : serviceType("urn:schemas-" + domain + ":service:" + type),
      serviceId("urn:" + domain + ":serviceId:" + id),
      SCPDURL("/" + stem + ".xml"),
      controlURL("/upnp/control/" + stem),
      eventSubURL("/upnp/event/" + stem) {}

XMLNode UpnpServiceDescr::getDescription() const {
  XMLNode service("service");
  service.addSubNode("serviceType", serviceType);
  service.addSubNode("serviceId", serviceId);
  service.addSubNode("SCPDURL", SCPDURL);
  service.addSubNode("controlURL", controlURL);
  service.addSubNode("eventSubURL", eventSubURL);
  return service;
}
