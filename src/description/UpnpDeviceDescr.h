#pragma once

#include <list>
#include <string>

#include "description/UpnpIcon.h"

/// A device's own part of a description document. An optional field is left out of the document
/// when it is empty.
struct UpnpDeviceDescr {
  std::string deviceType;  ///< without "urn:": "schemas-upnp-org:device:WANDevice:1"
  std::string friendlyName;
  std::string manufacturer = "Kestrava";
  std::string manufacturerURL = "http://www.kestrava.example/";  ///< optional
  std::string modelDescription;                                  ///< optional
  std::string modelName = "Palinode";
  std::string modelNumber;   ///< optional
  std::string modelURL;      ///< optional
  std::string serialNumber;  ///< optional
  std::string UDN;           ///< the unique device name without "uuid:"
  std::string UPC;           ///< optional
  std::list<UpnpIcon> icons;
  std::string presentationURL;  ///< optional
};
